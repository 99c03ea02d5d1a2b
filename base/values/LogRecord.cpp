// Formats the records of the trace log. Tested in tests/base/values/LogRecordTest.cpp.

#include "base/values/LogRecord.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "base/core/MeasuredLength.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableWalk.h"

LogRecord::LogRecord(const ZPTIME& time, int process, int thread, const char* description) {
  char start[128];
  const int length =
      snprintf(start, sizeof start, "%.3s %-2d %-4d %02d:%02d:%02d.%06ld\t%u.%u\t", time.month_name,
               time.day, time.year, time.hour, time.minute, time.second, time.microseconds,
               static_cast<unsigned>(process), static_cast<unsigned>(thread));
  line.assign(start, static_cast<size_t>(length));
  line += description;
}

void LogRecord::Append(ZephApplication* application, const LogParameter* parameters) {
  for (const LogParameter* p = parameters; p->type != LogParameter::End; p++) {
    line += '\t';
    switch (p->type) {
      case LogParameter::Text: AppendText(p->text, p->length); break;
      case LogParameter::Integer: AppendInteger(p->integer); break;
      case LogParameter::Double: AppendDouble(p->number); break;
      case LogParameter::Value: AppendVariable(application, p->variable); break;
      case LogParameter::End: break;
    }
  }
}

const std::string& LogRecord::Finish() {
  if (line.size() >= MostBytes) line.resize(MostBytes - 1);
  line += '\n';
  return line;
}

void LogRecord::AppendText(const char* text, int length) {
  if (!text) return;
  const auto bytes = static_cast<size_t>(MeasuredLength(text, length));
  for (size_t i = 0; i < bytes && line.size() < MostBytes; i++) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 32) {
      line += text[i];
    } else {
      char hexadecimal[8];
      snprintf(hexadecimal, sizeof hexadecimal, "\\x%02x", c);
      line += hexadecimal;
    }
  }
}

void LogRecord::AppendInteger(int value) {
  line += std::to_string(value);
}

void LogRecord::AppendDouble(double value) {
  int length, size;
  const std::unique_ptr<char[]> text(ZephApplication::dtos(value, &length, &size, -1));
  line.append(text.get(), static_cast<size_t>(length));
}

// A computed variable has no primary form and is written as text. A stored NULL has none either,
// and is not read, because reading it would leave it with a text.
void LogRecord::AppendScalar(Variable* variable) {
  switch (variable->primary_type()) {
    case PrimaryInteger: AppendInteger(variable->value_integer()); return;
    case PrimaryDouble: AppendDouble(variable->value_double()); return;
    case PrimaryNone:
      if (variable->type() == VariableStored) return;
      break;
    default: break;
  }
  const String& text = variable->value();
  AppendText(text.data, text.length);
}

// Writes an array as "[highest position] = [ a, b ]", a structure as "{ name: a, other: b }".
void LogRecord::AppendVariable(ZephApplication* application, Variable* variable) {
  struct Open {
    bool is_structure;
    bool has_elements;
  };
  std::vector<Open> open;
  VariableWalk walk(variable);
  for (auto step = walk.Next(); step != VariableWalk::End; step = walk.Next()) {
    if (line.size() >= MostBytes || application->cancelled()) return;
    if (step == VariableWalk::Leave) {
      line += open.back().is_structure ? " }" : " ]";
      open.pop_back();
      continue;
    }
    if (!open.empty()) {
      if (open.back().has_elements) line += ", ";
      open.back().has_elements = true;
      if (open.back().is_structure) {
        const String& name = walk.index().key;
        AppendText(name.data, name.length);
        line += ": ";
      }
    }
    if (step == VariableWalk::Scalar) {
      AppendScalar(walk.identity());
    } else if (step == VariableWalk::Enter) {
      const bool is_structure = walk.identity()->aggregatetype() == AggregateStructure;
      open.push_back({is_structure, false});
      line += is_structure ? "{ " : "[" + std::to_string(walk.identity()->Max()) + "] = [ ";
    }
  }
}
