// What the table of system variables has from the start of a request: most scripts look for a few
// of these dozens, so each is made when it is looked for.

#ifndef ZEPH_FASTCGI_REQUESTVARIABLES_H
#define ZEPH_FASTCGI_REQUESTVARIABLES_H

#include <memory>
#include <vector>

#include "base/compiled/VariableHash.h"
#include "base/core/StringClass.h"

// The web server's parameters and the system variables. A parameter has the name under which it was
// sent; those that say nothing of the request are left out: "termcap", "logname", "mail" and
// "path", in any case. Of two with one name the later one counts, and before both a system
// variable; a fact of the host counts before all.
class RequestVariables : public LateVariables {
 public:
  // The parameters, "name=value" each and a null behind the last, are borrowed. The system
  // variables are adopted.
  RequestVariables(char** parameters, LateVariables* system_variables);

  // Facts of the host, listed after the rest. They are copied; a length of -1 means strlen. For the
  // time before the table has these variables.
  void AddText(const char* name, int namelength, const char* text, int length);
  void AddNumber(const char* name, int number);

  int Number(const char* name, int length) override;
  int Count() override;
  const char* Name(int number, int* length) override;
  Variable* Make(int number) override;
  // The copy has texts of its own: a task outlives the request.
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
  // Numbers are those of the parameters, then those of the system variables, then the facts.
  int Parameters() const { return static_cast<int>(parameters.size()); }
  int FirstFact() const { return Parameters() + system->Count(); }
  const Fact& FactAt(int number) const { return facts[static_cast<size_t>(number - FirstFact())]; }
  const Parameter& ParameterAt(int number) const { return parameters[static_cast<size_t>(number)]; }
  // The chains below go by parameters and facts alone.
  int NumberOf(int own) const { return own < Parameters() ? own : own + system->Count(); }
  // The number of a name as a parameter or a fact, -1 without either.
  int OwnNumber(const char* name, int length);
  int& Head(const char* name, int length);
  void IndexNames();

  std::vector<Parameter> parameters;
  std::unique_ptr<LateVariables> system;
  std::vector<Fact> facts;
  std::vector<std::unique_ptr<String>> kept;  // of a copy
  // Chains of the parameters and of the facts after them, by the hash of the name, so that a name
  // that is none of them is told from all at once. The latest is first; -1 ends a chain. Made at
  // the first look-up.
  std::vector<int> heads;  // a power of two
  std::vector<int> links;
};

#endif
