// What the machine of a background task owns beside its frames: the copies of all that the machine
// which started it has borrowed.

#ifndef ZEPH_BASE_ZEPHVM_CLONE_H
#define ZEPH_BASE_ZEPHVM_CLONE_H

#include <memory>
#include <utility>
#include <vector>

class ClonedVariableHash;
class Dictionary;
class ExternalCallManager;
class FunctionManager;
class LocalizedDictionary;
class LocalizedLanguages;
class SegmentManager;
class VariableHash;
class ZephApplication;
class ZephVM;

// Made with the machine and deleted behind everything else that it has. All copies are made on the
// thread of the source, which stands still meanwhile, and belong to the task's from then on. Each
// text index is that of the source: the dictionaries number alike.
class MachineClone {
 public:
  // Clones the source's parents first, if it has any.
  MachineClone(ZephApplication* application, ZephVM& source, int* heartbeat, int* timedout,
               int* exit);
  ~MachineClone();
  MachineClone(const MachineClone&) = delete;
  MachineClone& operator=(const MachineClone&) = delete;

  // The copy of a table that a frame of this machine or its parents has; null for an unknown one.
  VariableHash* Find(const VariableHash* original) const;

  // The rest is in the order in which it is made, and goes in the opposite one.
  std::unique_ptr<ZephVM> parent;
  std::unique_ptr<Dictionary> dictionary;
  std::unique_ptr<ClonedVariableHash> system_variables;
  std::unique_ptr<ClonedVariableHash> global_variables;
  std::unique_ptr<SegmentManager> segments;
  std::unique_ptr<FunctionManager> functions;
  std::unique_ptr<ExternalCallManager> external_calls;  // a child uses its parent's
  std::unique_ptr<LocalizedLanguages> languages;
  std::unique_ptr<LocalizedDictionary> localized;
  // Tables of frames with their copies.
  std::vector<std::pair<const VariableHash*, VariableHash*>> locals;

 private:
  static Dictionary* DictionaryOf(ZephVM& source);
};

#endif
