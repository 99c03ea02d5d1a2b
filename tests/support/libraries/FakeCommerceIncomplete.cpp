// A commerce library that lacks one of the four functions.

extern "C" {

int zeph_commerce_init(void*, void**, const char*, const char*, void*, void*) {
  return 0;
}

int zeph_commerce_loop(void*, void**, const char*, const char*, void*, void*, int) {
  return 2;
}

void zeph_commerce_cleanup(void*, void**, const char*, const char*, void*) {}
}
