// What a runtime error of each tag does: whether its message goes to the client, whether the
// script stops, and the variable that receives the message. The defaults belong to the process; a
// machine works on a copy, so that a script changes its own table only.

#ifndef ZEPH_BASE_TAGERRORS_H
#define ZEPH_BASE_TAGERRORS_H

// Bits of a tag's settings.
enum TagErrorFlags : int {
  TagError_Display = 1,  // the message goes to the client
  TagError_Fatal = 2,    // the script stops
};

// One tag. In the table's last slot, which no tag uses, both names are null and the settings 0.
struct TagErrorSetting {
  int tag;
  const char* name;
  const char* variable;
  int settings;
};

inline constexpr int tag_count = 77;
// Numbers that handlers use. Errors in an expression go under its own, whatever tag it stands in.
inline constexpr int Tag_Import = 2;
inline constexpr int Tag_Export = 4;
inline constexpr int Tag_Do = 22;
inline constexpr int Tag_Lockfile = 23;
inline constexpr int Tag_Expression = 62;
inline constexpr int Tag_Asynchronous = 75;

// The defaults in force, indexed by tag number. A request may set one while others are read by the
// machines of other requests, so the settings are accessed through the functions below only.
extern TagErrorSetting tag_default_errorsettings[tag_count];
// The defaults as shipped.
extern const TagErrorSetting original_tag_default_errorsettings[tag_count];

// Copies the defaults in force into a machine's table of tag_count entries. Any thread.
void CopyDefaultErrorSettings(TagErrorSetting* table);
// The default in force of a tag, and a change of it; a number that is no index is ignored and
// reads as 0. Any thread; machines built later see it.
int DefaultErrorSetting(int tag);
void SetDefaultErrorSetting(int tag, int settings);

#endif
