// Texts in the visitor's language: their parameters, and putting them together. Tested in
// tests/base/machine/InstructionsLocalizedTest.cpp.

#include <atomic>
#include <cstring>
#include <memory>

#include "base/compiled/Dictionary.h"
#include "base/compiled/LocalizedDictionary.h"
#include "base/compiled/LocalizedLanguages.h"
#include "base/compiled/VariableHash.h"
#include "base/core/LinkBuffer.h"
#include "base/core/Output.h"
#include "base/host/ZephApplication.h"
#include "base/machine/PoppedString.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

// poplvnc  ( s -- )  Sets a parameter of the next localized text, by a constant name.
void ZephVM::poplvnc() {
  int length;
  const char* name = DictionaryText(first_integer, &length);
  if (!name) return;
  PoppedString text(stack);
  if (stop_flag) return;
  // Few scripts use parameters, so the table is made by the first.
  if (!text_parameters) text_parameters = std::make_unique<VariableHash>(dictionary, 12, 512);
  VariableRef parameter(new Variable(name, length));
  if (text.owned()) {
    const int bytes = text.length();
    const int size = text.size();
    parameter->SetValue_Nocopy(text.release(), bytes, size);
  } else {
    parameter->SetValue(text.data(), text.length());
  }
  text_parameters->SetVariable(parameter.release());
}

// Hands each piece of a token's text to write(text, length), in order. A token that no language has
// is an empty text. The parameters are for one text, so they are dropped in any case.
template <typename Write>
void ZephVM::WriteLocalized(int token, Write write) {
  struct Parameters {
    ~Parameters() {
      if (table) table->Dump();
    }
    VariableHash* table;
  } const parameters{text_parameters.get()};
  const LocalizedIndex::TokenEntry* entry = languages ? languages->Get_Entry(token) : nullptr;
  if (!entry || !localized) return;
  int index = entry->first;
  // A file can chain its pieces into a circle, and repeat a long text without bound: the number of
  // pieces limits the steps, and the time-out flag their length.
  for (int left = localized->Entries(); left > 0; left--) {
    const LocalizedDictionary::Piece* piece = localized->Entry(index);
    if (!piece || std::atomic_ref<int>(*timedout_flag).load(std::memory_order_relaxed)) return;
    int length;
    const char* text = DictionaryText(piece->text, &length);
    if (!text) return;
    if (piece->literal) {
      write(text, length);
    } else if (parameters.table) {
      Variable* value = nullptr;
      parameters.table->Find(&value, text, length, 0);
      if (value) {
        const String& bytes = value->value();
        if (bytes.length > 0) write(bytes.data, bytes.length);
      }
    }
    index = piece->next;
  }
}

// localize  ( -- )  Writes the text of a token in the current language, or else in the default
// language, with the parameters that were set before. A parameter that was not set is empty, and so
// is a token that neither language has.
void ZephVM::localize() {
  Output* output = application->output();
  WriteLocalized(first_integer,
                 [output](const char* text, int length) { output->Write(text, length); });
}

// localizev  ( -- s )  As localize, with the text put on the stack; an empty one for a token that
// neither language has.
void ZephVM::localizev() {
  LinkBuffer text(256, 4096);
  WriteLocalized(first_integer,
                 [&text](const char* bytes, int length) { text.cat(bytes, length); });
  if (stop_flag) return;
  int length;
  char* bytes = text.release(&length, nullptr, 1);
  bytes[length] = '\0';
  // Reports the size that the text needs, not that of the buffer.
  stack->PushS(bytes, length, length + 1, 1);
}
