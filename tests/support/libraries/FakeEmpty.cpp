// A shared library that is no extension library of any kind.

extern "C" int fake_unrelated(void) {
  return 1;
}
