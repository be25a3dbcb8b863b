// Does not use the gateway.
int own() {
  return 0;
}
