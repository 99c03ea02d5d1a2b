// What a family of machines shares. Tested in tests/base/machine/MachineFamilyTest.cpp and
// DoContextTest.cpp.

#include "base/machine/MachineFamily.h"

#include "base/machine/DoContext.h"

MachineFamily::MachineFamily() = default;

MachineFamily::~MachineFamily() = default;

DoContexts* MachineFamily::contexts() {
  if (!files) files = std::make_unique<DoContexts>();
  return files.get();
}

// The destructor of DoContexts ends machines, and these may still look at the family.
void MachineFamily::DeleteContexts() {
  files.reset();
}
