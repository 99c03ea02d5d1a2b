// Only this file is compiled with the paths of the checkout: the objects of all others are the same
// in every checkout, so that ccache can share them.
#include "tests/support/Paths.h"

std::string InBuild(const std::string& path) {
  return ZEPH_BINARY_DIR "/" + path;
}

std::string InSource(const std::string& path) {
  return ZEPH_SOURCE_DIR "/" + path;
}
