// A family of machines: the machine of a request or a task, which has no parent, and the machines
// of the other compiled files that it uses, which are its children, and theirs.

#ifndef ZEPH_BASE_MACHINEFAMILY_H
#define ZEPH_BASE_MACHINEFAMILY_H

#include <cstdint>
#include <memory>

class DoContexts;
struct MachineDatabases;

// What the machines of a family share. Belongs to the machine without a parent, which outlives the
// others. All machines of a family run on one thread, nested in one another, so nothing is locked.
class MachineFamily {
 public:
  MachineFamily();
  ~MachineFamily();
  MachineFamily(const MachineFamily&) = delete;
  MachineFamily& operator=(const MachineFamily&) = delete;

  // The files that the family has opened, each with its machine. Made by the first call.
  DoContexts* contexts();
  // Deletes them, with the children. The owner calls this before it deletes the tables that the
  // children borrow.
  void DeleteContexts();

  // The databases that the family has open. Made by the first call; databases_if_any
  // returns null before that. The owner calls DeleteDatabases while all of its machines still
  // exist. In base/database/Database.cpp.
  MachineDatabases& databases();
  MachineDatabases* databases_if_any() const { return open_databases; }
  void DeleteDatabases();
  // How many views have been removed from the family's databases. A view that was found while the
  // count was the same still exists, and its name still means it.
  uint64_t ViewsGone() const { return views_gone; }
  void NoteViewGone() { views_gone++; }

  // Runs in progress, nested in one another. Each uses some of the thread's own stack or, for a
  // filter, an open file, so there is a limit. REQUIRES: a run that begins has room and is ended.
  bool HasRoomForRun() const { return runs < kMostRuns; }
  void BeginRun() { runs++; }
  void EndRun() { runs--; }

  // Reads of database fields in progress for which a library works. The code that reads may hold
  // texts of other variables. So meanwhile no code of a script runs, which could store in them, and
  // no view loses its fields.
  bool IsReadingField() const { return field_reads > 0; }
  class FieldRead {
   public:
    explicit FieldRead(MachineFamily* family) : of(family) { of->field_reads++; }
    ~FieldRead() { of->field_reads--; }
    FieldRead(const FieldRead&) = delete;
    FieldRead& operator=(const FieldRead&) = delete;

   private:
    MachineFamily* of;
  };

  // Whether frames of finished calls are kept for later calls, which is the default.
  bool reuses_frames() const { return frame_reuse; }
  void SetFrameReuse(bool reuse) { frame_reuse = reuse; }

 private:
  static constexpr int kMostRuns = 500;

  MachineDatabases* open_databases = nullptr;  // null until a script opens one
  std::unique_ptr<DoContexts> files;           // null until a script names another file
  uint64_t views_gone = 0;
  int runs = 0;
  int field_reads = 0;
  bool frame_reuse = true;
};

#endif
