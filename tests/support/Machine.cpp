// A machine for tests: code from program text, and its stack as text.

#include "tests/support/Machine.h"

#include "base/machine/PoppedString.h"
#include "tools/Assembler.h"

void MachineApplication::Log(unsigned type, LogParameter* parameters) {
  std::string record = Log_Description(type);
  for (const LogParameter* p = parameters; p->type != LogParameter::End; p++) {
    record += '|';
    if (p->type == LogParameter::Text) {
      record.append(p->text, p->length < 0 ? strlen(p->text) : static_cast<size_t>(p->length));
    }
    if (p->type == LogParameter::Integer) record += std::to_string(p->integer);
    if (p->type == LogParameter::Double) {
      std::unique_ptr<char[]> text(dtos(p->number, nullptr, nullptr, -1));
      record += text.get();
    }
    if (p->type == LogParameter::Value) record += '(' + Machine::Text(*p->variable) + ')';
  }
  log.push_back(record);
}

Machine& Machine::Assemble(std::string_view source) {
  std::string image, errors;
  if (!AssembleScript(source, "script.zpa", &image, &errors)) {
    ADD_FAILURE() << errors;
    return *this;
  }
  return Load(image);
}

Machine& Machine::Load(const std::string& image) {
  files.files["script"] = image;
  EXPECT_TRUE(script.Open("script", FileMode_Read));
  EXPECT_TRUE(dictionary.Read(&script) && system.Read(&script, MakeTag("syst")) &&
              global.Read(&script, MakeTag("glbl")) && languages.Read() &&
              localized.Read(&script) && segments.Read(&script) && functions.Read(&script));
  end = segments.Start()->length();
  return *this;
}

std::string Machine::StackText() {
  std::string all;
  while (stack().Entries() > 0) {
    const ZephVM_Stack::Stack_Entry* top = stack().Peek();
    std::string before, after;
    if (top->kind == ZephVM_Stack::KindDouble) before = "d";
    if (top->kind == ZephVM_Stack::KindString) before = after = "\"";
    if (top->kind == ZephVM_Stack::KindLinkBuffer) before = "<", after = ">";
    if (top->kind == ZephVM_Stack::KindVariable) {
      before = "(", after = ")";
      if (top->value.variable->type() == VariableNULL) after = "null)";
    }
    PoppedString text(&stack());
    std::string entry =
        before + std::string(text.data(), static_cast<size_t>(text.length())) + after;
    all = all.empty() ? entry : entry + " " + all;
  }
  return all;
}

void ExpectStack(const StackCase& expected) {
  SCOPED_TRACE(expected.code);
  Machine machine;
  machine.Assemble(expected.code);
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(machine.StackText(), expected.stack);
}

void ExpectFailure(const FailureCase& expected) {
  SCOPED_TRACE(expected.code);
  Machine machine;
  machine.Assemble(expected.code);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Failure(), expected.message);
}
