// A shared object without a descriptor, and so not a module.
extern "C" int nothing();
int nothing() {
  return 0;
}
