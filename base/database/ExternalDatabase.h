// Databases of other types than the built-in one. A library has a table of functions, and the
// classes here forward to it what scripts do with databases, views and fields. api/zeph.h describes
// the table; docs/extensions.md is the page for authors of libraries.

#ifndef ZEPH_BASE_EXTERNALDATABASE_H
#define ZEPH_BASE_EXTERNALDATABASE_H

#include "api/zeph.h"
#include "base/database/Database.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"

// An open database of a library. The descriptor is the library's table, borrowed; it lives as long
// as the process. What the library cannot do fails with a text that names the tag, and what it
// refuses with the library's text.
//
// While a function of the library runs, it may run code of the script, which may come back here. So
// every call is an Evaluation: until it ends, the script can read and store fields of this
// database, and nothing else. Therefore nothing that a library works on is deleted in its call. The
// functions that give a field's value or type run no code of a script at all (VariableRead).
class ExternalDatabase : public Database {
 public:
  // The error of an operation that is refused for that reason.
  static constexpr char kInLibrary[] = "Database is in use by its library";

  ExternalDatabase(ZephVM* machine, const char* name, int length, int allocated, int* deletable,
                   const _ZP_EL_Database* descriptor);
  // Deletes the views, then lets the library free its data word. Does not close.
  ~ExternalDatabase() override;

  bool Open(const char* path, int pathlength, int pathallocated, int* pathdeletable,
            const char* name, int namelength, int nameallocated, int* namedeletable,
            const char* third, int thirdlength, int thirdallocated, int* thirddeletable,
            const char* fourth, int fourthlength, int fourthallocated, int* fourthdeletable,
            const char* fifth, int fifthlength, int fifthallocated, int* fifthdeletable) override;
  // Closes and removes the views, in their order, then closes the database. A view that cannot be
  // closed ends that: it stays, and the library's close is not called.
  bool Close() override;
  bool Create(const char* path, int pathlength, int pathallocated, int* pathdeletable,
              const char* name, int namelength, int nameallocated, int* namedeletable,
              const char* specification, int specificationlength, int specificationallocated,
              int* specificationdeletable) override;
  bool OpenIndexes(ZephVM* machine, const char* list, int length, int allocated,
                   int* deletable) override;
  bool SetPrimaryIndex(const char* name, int length, int allocated, int* deletable) override;
  bool CreateIndex(ZephVM* machine, const char* path, int pathlength, int pathallocated,
                   int* pathdeletable, const char* expression, int expressionlength,
                   int expressionallocated, int* expressiondeletable, const char* flags,
                   int flagslength, int flagsallocated, int* flagsdeletable) override;
  bool Pack() override;
  bool Reindex() override;
  bool OpenView(const char* name, int namelength, int nameallocated, int* namedeletable,
                const char* query, int querylength, int queryallocated, int* querydeletable,
                VariableList* variables, int count) override;
  // Removes the view also if the library fails to close it; then returns false, with the view's
  // text in error().
  bool CloseView(const char* name, int length, int allocated, int* deletable) override;
  bool RunQuery(const char* query, int length, int allocated, int* deletable,
                VariableList* variables, int count) override;
  // These three succeed if the library has no function for them.
  bool Commit() override;
  bool Rollback() override;
  bool Transaction() override;
  bool Command(const char* command, int commandlength, int commandallocated, int* commanddeletable,
               const char* arguments, int argumentslength, int argumentsallocated,
               int* argumentsdeletable) override;

  // A library may add things while such things are deleted, and these are deleted too. More than
  // this number are not made, so that this ends.
  static constexpr int kMostLate = 100;

  // Makes a view and owns it. It becomes the primary view if there is none. A length of -1 means
  // strlen. data is the view's word for the library. Null if the object is being deleted and more
  // than kMostLate views were added since.
  ExternalDatabaseView* Add_View(const char* name, int length, void* data);
  // The database's word for the library. Setting it lets the library free the old one first, even
  // if it is the same; while it does so, the word is only stored.
  void SetData(void* data);
  void* data() const { return library_data; }
  // The machine that has opened the database; null after Release_VM.
  ZephVM* program() { return vm; }

 private:
  template <class... Parameters, class... Arguments>
  bool Call(int (*function)(ZPDATABASE, Parameters...), const char* unsupported,
            Arguments... arguments);
  bool Fail(const String& text);
  void FreeData();

  const _ZP_EL_Database* descriptor;
  void* library_data = nullptr;
  bool is_ending = false;
  bool is_freeing = false;  // free_data runs
  int late_views = 0;
};

// A view of such a database. The library adds the variables of the current record, and replaces
// them after a move.
class ExternalDatabaseView : public DatabaseView {
 public:
  ExternalDatabaseView(ZephVM* machine, ExternalDatabase* database, const char* name, int length,
                       const _ZP_EL_Database* descriptor, void* data);
  ~ExternalDatabaseView() override;

  // Succeeds if the library has no function for it.
  bool Close() override;
  bool Skip_NoFilter(int count) override;
  bool Go_NoFilter(long position) override;
  bool Find_NoFilter(const char* key, int length, int allocated, int* deletable,
                     int exact) override;
  // These three fail: a library that filters does so in its moves, so the engine has no filter.
  bool Skip_Filter(int count) override;
  bool Go_Filter(long position) override;
  bool Find_Filter(const char* key, int length, int allocated, int* deletable, int exact) override;
  bool Add() override;
  bool Delete() override;
  bool UnDelete() override;
  bool Update() override;
  bool Filter(ZephVM* machine, const char* expression, int length, int allocated,
              int* deletable) override;
  bool RevealStructure_Table(const char* path, int length, int allocated, int* deletable) override;
  bool RevealStructure_Aggregate(Variable** variable) override;
  // Sets the dirty flag of all variables.
  void SetDirty(int dirty) override;
  // Commits all variables. Returns 1, or 0 if one could not be committed.
  int Commit();

  // Makes a variable and owns it. A length of -1 means strlen. Null if the variables are being
  // removed and more than ExternalDatabase::kMostLate were added since.
  ExternalDatabaseVariable* Add_Variable(const char* name, int length, void* data);
  // Removes all variables; those that scripts hold become NULL for good. Does nothing while the
  // library writes or frees a variable of this view, because an operation on that variable is not
  // at its end, and while any variable of a database is read, because the reader may hold one of
  // these.
  void Clear();
  void SetData(void* data) { library_data = data; }
  void* data() const { return library_data; }
  ExternalDatabase* external_database() { return owner; }
  ZephVM* program() { return vm; }

  // How many variables have got or lost a stored value, and that one may have elements. Commit
  // looks at the variables only if there is a reason.
  void CountStores(int more) { stores += more; }
  void NoteElements() { may_have_elements = true; }

  // A call of a function that works on a variable.
  class VariableCall {
   public:
    explicit VariableCall(ExternalDatabaseView* view) : of(view), running(view->owner) {
      of->variable_calls++;
    }
    ~VariableCall() { of->variable_calls--; }
    VariableCall(const VariableCall&) = delete;
    VariableCall& operator=(const VariableCall&) = delete;

   private:
    ExternalDatabaseView* of;
    Database::Evaluation running;
  };
  // One that asks for its value or its type.
  class VariableRead {
   public:
    explicit VariableRead(ExternalDatabaseView* view)
        : running(view), reading(&view->vm->Family()) {}

   private:
    VariableCall running;
    MachineFamily::FieldRead reading;
  };

 private:
  template <class... Parameters, class... Arguments>
  bool Call(int (*function)(ZPDATABASEVIEW, Parameters...), const char* unsupported,
            Arguments... arguments);
  bool Fail(const String& text);
  bool HasStores();
  void DropVariables();

  ExternalDatabase* owner;
  const _ZP_EL_Database* descriptor;
  void* library_data;
  int variable_calls = 0;
  // Invariant: the number of variables in the table with a dirty flag. Those that are references by
  // now, and have nothing to pass, count too.
  int stores = 0;
  bool may_have_elements = false;  // false: no variable in the table has elements
  bool is_dropping = false;        // DropVariables runs
  int late_variables = 0;
};

// A field of the current record. Its value is requested from the library when a script first needs
// it in a form; that form is then kept. A store stays here and marks the variable as dirty; the
// library takes it with Commit. A dirty variable never asks.
//
// A variable that was not read yet has no valid form, so IsNULL() is 1 until then.
//
// The order of fields and virtual operations must not change.
class ExternalDatabaseVariable final : public Variable {
 public:
  ExternalDatabaseVariable(ExternalDatabaseView* view, const char* name, int length,
                           const _ZP_EL_Database* descriptor, void* data);
  ~ExternalDatabaseVariable() override;
  ExternalDatabaseVariable(const ExternalDatabaseVariable&) = delete;
  ExternalDatabaseVariable& operator=(const ExternalDatabaseVariable&) = delete;

  // VariableComputed, as long as the variable is no reference and not NULL for good.
  int type() override;
  // The library's type for the field; text if it gives none.
  int preferred_type() override;
  // Compares the value in its preferred type, unless a form is valid already.
  double value_compare(int* not_numeric) override;
  int SetValue(const char* text, int length) override;
  int SetValue(Variable& source) override;
  int SetValue_Nocopy(char* buffer, int length, int allocated) override;
  int SetValue_Integer(int value) override;
  int SetValue_Double(double value) override;
  void Convert_Aggregate(AggregateType kind) override;
  void Convert_String() override;
  void Convert_Integer() override;
  void Convert_Double() override;

  // Make a form from the others that are valid.
  virtual void Coerce_String();
  virtual void Coerce_Integer();
  virtual void Coerce_Double();
  virtual void SetDirty(int dirty);
  // Passes a stored value, or the text of an array or structure, to the library. Returns 1, or 0 if
  // the library refuses it or has no function for it. The variable stays dirty.
  virtual int Commit();
  // Whether Commit has a value to pass.
  bool HasStore() const { return (dirty_flag || elements) && !redirected() && owner; }
  // Ask the library for one form. Return 1 if it is valid afterwards, else 0.
  virtual int Get_Integer();
  virtual int Get_Double();
  virtual int Get_String();

  // Lets the library free the data word. The variable belongs to no view afterwards: it must be
  // deleted, or made NULL, before it is used again.
  void Detach();
  // Null after Detach.
  ExternalDatabaseView* view() { return owner; }
  void SetData(void* data) { library_data = data; }
  void* data() const { return library_data; }

 private:
  bool HasOwnValue() const { return redirected() || elements || dirty_flag || !owner; }
  void SetFlag(int dirty) {
    if (owner) owner->CountStores(dirty - dirty_flag);
    dirty_flag = dirty;
  }
  bool Ask(Form first, Form second, Form third);
  int CommitText(const String& text);

  ExternalDatabaseView* owner;
  const _ZP_EL_Database* descriptor;
  void* library_data;
  int dirty_flag = 0;  // 1 or 0
};

// Libraries call it for each value that they store.
inline void ExternalDatabaseVariable::SetDirty(int dirty) {
  if (!redirected()) SetFlag(dirty != 0);
}

#endif
