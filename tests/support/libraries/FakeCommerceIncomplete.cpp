// A commerce library that lacks one of the four functions.

class VariableHash;
class VariableList;
class ZephVM;

extern "C" {

int zeph_commerce_init(ZephVM*, void**, const char*, const char*, VariableList*, VariableHash*) {
  return 0;
}

int zeph_commerce_loop(ZephVM*, void**, const char*, const char*, VariableList*, VariableHash*,
                       int) {
  return 2;
}

void zeph_commerce_cleanup(ZephVM*, void**, const char*, const char*, VariableList*) {}
}
