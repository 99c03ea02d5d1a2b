// The text that describes the fields of a new table: "name char(20), born date". docs/database.md
// has it for authors of scripts.

#ifndef ZEPH_BASE_XBASEFIELDSPECIFICATION_H
#define ZEPH_BASE_XBASEFIELDSPECIFICATION_H

#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"
#include "base/database/XBaseField.h"

namespace XBaseFieldSpecification {

// Appends a field to the list for each item of the text, in order. The fields belong to no table;
// the list is for XBaseTable::Create. A length of -1 means strlen. Returns false with the message
// in *error if the text is wrong; the list then has the fields before the wrong item.
[[nodiscard]] bool Parse(const char* text, int length, List<XBaseField>& fields, String* error);

}  // namespace XBaseFieldSpecification

#endif
