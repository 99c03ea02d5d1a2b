// What the machine of a background task owns besides its frames: copies of everything that the
// machine that started it has borrowed.

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

// Made with the machine and deleted after everything else that the machine has. The copies are made
// on the source's thread, while the source does not run; from then on they belong to the task's
// thread. Text ids are the source's, because the dictionaries have the same numbering.
class MachineClone {
 public:
  // Clones the source's parents first, if it has any. The host and its three integers are borrowed.
  MachineClone(ZephApplication* application, ZephVM& source, int* heartbeat, int* timedout,
               int* exit);
  ~MachineClone();
  MachineClone(const MachineClone&) = delete;
  MachineClone& operator=(const MachineClone&) = delete;

  // Returns the copy of a table that a frame of this machine or of its parents uses; null for an
  // unknown one.
  VariableHash* Find(const VariableHash* original) const;

  // The fields are in the order in which they are made, and are deleted in the opposite order.
  std::unique_ptr<ZephVM> parent;
  std::unique_ptr<Dictionary> dictionary;
  std::unique_ptr<ClonedVariableHash> system_variables;
  std::unique_ptr<ClonedVariableHash> global_variables;
  std::unique_ptr<SegmentManager> segments;
  std::unique_ptr<FunctionManager> functions;
  std::unique_ptr<ExternalCallManager> external_calls;  // null in a child, which uses its parent's
  std::unique_ptr<LocalizedLanguages> languages;
  std::unique_ptr<LocalizedDictionary> localized;
  // Tables of frames, each with its copy.
  std::vector<std::pair<const VariableHash*, VariableHash*>> locals;

 private:
  static Dictionary* DictionaryOf(ZephVM& source);
};

#endif
