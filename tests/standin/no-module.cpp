// A shared object that is no module: it has no descriptor.
extern "C" int nothing();
int nothing() {
  return 0;
}
