// The system variables that exist from the start of a request. There are dozens of them and most
// scripts read only a few, so each is made when it is looked up.

#ifndef ZEPH_FASTCGI_REQUESTVARIABLES_H
#define ZEPH_FASTCGI_REQUESTVARIABLES_H

#include <memory>
#include <string_view>
#include <vector>

#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/VariableHash.h"
#include "base/core/StringClass.h"

// The web server's parameters, the system variables, and facts that the host adds. A parameter has
// the name under which it was sent. Those that are not about the request are left out: "termcap",
// "logname", "mail" and "path", in any case. Of two parameters with one name the later one counts;
// a system variable counts before both, and a fact before all.
class RequestVariables : public LateVariables {
 public:
  // The parameters are borrowed: "name=value" each, with a null after the last. They are read when
  // a variable is first looked up, because many scripts look up none.
  RequestVariables(char** parameters, std::unique_ptr<LateVariables> system_variables);

  // Add a fact of the host; facts are listed after the rest. The text of AddBorrowed must stay as
  // long as the request; a length of -1 means strlen. AddMade has the text made by make(maker) when
  // it is needed, on the request's thread. REQUIRES: the name has fewer than kLongestName bytes;
  // the table of system variables does not have this object yet.
  using Maker = String (*)(const void* maker);
  static constexpr size_t kLongestName = 16;
  void AddText(std::string_view name, String text);
  void AddBorrowed(std::string_view name, const char* text, int length);
  void AddMade(std::string_view name, Maker make, const void* maker);
  void AddNumber(std::string_view name, int number);

  int Number(const char* name, int length) override;
  int Count() override;
  const char* Name(int number, int* length) override;
  Variable* Make(int number) override;
  // The copy owns its texts, because a task may outlive the request.
  LateVariables* Clone(ZephApplication* application) override;

 private:
  struct Parameter {
    const char* text;  // begins with the name
    int length;        // of the name
    const char* value;
  };

  // A request has about this many facts. They are in the object itself.
  static constexpr size_t kFacts = 8;

  // A number, or a text in one of three forms: borrowed, made by a call, or owned.
  struct Fact {
    char name[kLongestName];
    int name_length = 0;
    bool is_number = false;
    int number = 0;  // or the length of the borrowed text
    const char* borrowed = nullptr;
    Maker make = nullptr;
    const void* maker = nullptr;
    String text;
  };

  Fact& AddFact(std::string_view name);
  void ReadParameters();
  void Add(const char* text);
  // Numbers count the parameters first, then the system variables, then the facts.
  int Parameters() {
    if (unread) ReadParameters();
    return static_cast<int>(parameters.size());
  }
  int FirstFact() { return Parameters() + system->Count(); }
  const Fact& FactByIndex(size_t index) const {
    return index < kFacts ? first_facts[index] : more_facts[index - kFacts];
  }
  const Fact& FactAt(int number) { return FactByIndex(static_cast<size_t>(number - FirstFact())); }
  const Parameter& ParameterAt(int number) const { return parameters[static_cast<size_t>(number)]; }
  // The chains below count only the parameters and the facts.
  int NumberOf(int own) { return own < Parameters() ? own : own + system->Count(); }
  // The number of a parameter or a fact with that name, -1 if there is none.
  int OwnNumber(const char* name, int length);
  int& Head(const char* name, int length);
  void IndexNames();

  char** unread;  // null once they are in `parameters`
  std::vector<Parameter> parameters;
  std::unique_ptr<LateVariables> system;
  Fact first_facts[kFacts];
  std::vector<Fact> more_facts;
  size_t fact_count = 0;                      // in both
  std::vector<std::unique_ptr<String>> kept;  // texts of a copy
  // A hash table over the names of the parameters and the facts, so that a look-up of any other
  // name ends at once. A chain begins with its latest entry and ends with -1. Made at the first
  // look-up.
  std::vector<int> heads;  // its size is a power of two
  std::vector<int> links;
};

#endif
