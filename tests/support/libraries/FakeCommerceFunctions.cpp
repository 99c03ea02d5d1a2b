// A commerce library without a table: four functions by their names.

extern "C" {

int zeph_commerce_init(void*, void**, const char*, const char*, void*, void*) {
  return 11;
}

int zeph_commerce_loop(void*, void**, const char*, const char*, void*, void*, int index) {
  return 20 + index;
}

void zeph_commerce_cleanup(void*, void** state, const char*, const char*, void*) {
  *state = nullptr;
}

const char* zeph_commerce_error(void*, void**, const char*, const char*, void*) {
  return "broke";
}
}
