// Knows nothing of the gateway.
int own() {
  return 0;
}
