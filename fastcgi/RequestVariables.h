// The system variables that exist from the start of a request. There are dozens of them and most
// scripts read only a few, so each is made when it is looked up.

#ifndef ZEPH_FASTCGI_REQUESTVARIABLES_H
#define ZEPH_FASTCGI_REQUESTVARIABLES_H

#include <memory>
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
  // The parameters are borrowed: "name=value" each, with a null after the last.
  RequestVariables(char** parameters, std::unique_ptr<LateVariables> system_variables);

  // Add a fact of the host; facts are listed after the rest. Texts are copied; a length of -1 means
  // strlen. REQUIRES: the table of system variables does not have this object yet.
  void AddText(const char* name, int namelength, const char* text, int length);
  void AddNumber(const char* name, int number);

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

  struct Fact {
    String name;
    bool is_number;
    String text;
    int number;
  };

  void Add(const char* text);
  // Numbers count the parameters first, then the system variables, then the facts.
  int Parameters() const { return static_cast<int>(parameters.size()); }
  int FirstFact() const { return Parameters() + system->Count(); }
  const Fact& FactAt(int number) const { return facts[static_cast<size_t>(number - FirstFact())]; }
  const Parameter& ParameterAt(int number) const { return parameters[static_cast<size_t>(number)]; }
  // The chains below count only the parameters and the facts.
  int NumberOf(int own) const { return own < Parameters() ? own : own + system->Count(); }
  // The number of a parameter or a fact with that name, -1 if there is none.
  int OwnNumber(const char* name, int length);
  int& Head(const char* name, int length);
  void IndexNames();

  std::vector<Parameter> parameters;
  std::unique_ptr<LateVariables> system;
  std::vector<Fact> facts;
  std::vector<std::unique_ptr<String>> kept;  // texts of a copy
  // A hash table over the names of the parameters and the facts, so that a look-up of any other
  // name ends at once. A chain begins with its latest entry and ends with -1. Made at the first
  // look-up.
  std::vector<int> heads;  // its size is a power of two
  std::vector<int> links;
};

#endif
