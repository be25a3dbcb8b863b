// A shared object without a descriptor, so no module.
extern "C" int nothing();
int nothing() {
  return 0;
}
