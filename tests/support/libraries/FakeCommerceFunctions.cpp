// A commerce library without a table: four functions by their names.

class VariableHash;
class VariableList;
class ZephVM;

extern "C" {

int zeph_commerce_init(ZephVM*, void**, const char*, const char*, VariableList*, VariableHash*) {
  return 11;
}

int zeph_commerce_loop(ZephVM*, void**, const char*, const char*, VariableList*, VariableHash*,
                       int index) {
  return 20 + index;
}

void zeph_commerce_cleanup(ZephVM*, void** state, const char*, const char*, VariableList*) {
  *state = nullptr;
}

const char* zeph_commerce_error(ZephVM*, void**, const char*, const char*, VariableList*) {
  return "broke";
}
}
