// What the table of system variables has from the start of a request: most scripts look for a few
// of these dozens, so each is made when it is looked for.

#ifndef ZEPH_FASTCGI_REQUESTVARIABLES_H
#define ZEPH_FASTCGI_REQUESTVARIABLES_H

#include <memory>
#include <vector>

#include "base/StringClass.h"
#include "base/VariableHash.h"

// The web server's parameters and the system variables. A parameter has the name under which it was
// sent; those that say nothing of the request are left out: "termcap", "logname", "mail" and
// "path", in any case. Of two with one name the later one counts, and before both a system
// variable.
class RequestVariables : public LateVariables {
 public:
  // The parameters, "name=value" each and a null behind the last, are borrowed. The system
  // variables are adopted.
  RequestVariables(char** parameters, LateVariables* system_variables);

  // Facts of the host. They are copied; a length of -1 means strlen. For the time before the table
  // has these variables.
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
  // Numbers are those of the facts, then those of the system variables, then the parameters.
  int Facts() const { return static_cast<int>(facts.size()); }
  const Fact& FactAt(int number) const { return facts[static_cast<size_t>(number)]; }
  const Parameter& ParameterAt(int number) const {
    return parameters[static_cast<size_t>(number - Facts() - system->Count())];
  }

  std::vector<Fact> facts;
  std::unique_ptr<LateVariables> system;
  std::vector<Parameter> parameters;
  std::vector<std::unique_ptr<String>> kept;  // of a copy
};

#endif
