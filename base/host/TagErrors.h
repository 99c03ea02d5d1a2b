// The settings of runtime errors for each tag: whether the message goes to the client, whether the
// script stops, and the variable that receives the message. The process holds the defaults; a
// machine works on a copy, so that a script changes only its own table.

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
// Numbers that handlers use. Errors in an expression use Tag_Expression, whatever tag contains it.
inline constexpr int Tag_Import = 2;
inline constexpr int Tag_Export = 4;
inline constexpr int Tag_POP = 8;
inline constexpr int Tag_SMTP = 11;
inline constexpr int Tag_Call = 14;
inline constexpr int Tag_Commerce = 19;
inline constexpr int Tag_Do = 22;
inline constexpr int Tag_Lockfile = 23;
inline constexpr int Tag_Open = 28;
inline constexpr int Tag_Close = 29;
inline constexpr int Tag_Skip = 30;
inline constexpr int Tag_Go = 31;
inline constexpr int Tag_Primary = 32;
inline constexpr int Tag_Find = 33;
inline constexpr int Tag_SetIndex = 34;
inline constexpr int Tag_Update = 35;
inline constexpr int Tag_Delete = 36;
inline constexpr int Tag_Undelete = 37;
inline constexpr int Tag_Add = 38;
inline constexpr int Tag_MakeIndex = 39;
inline constexpr int Tag_Pack = 40;
inline constexpr int Tag_Reindex = 41;
inline constexpr int Tag_Create = 42;
inline constexpr int Tag_RevealStructure = 43;
inline constexpr int Tag_OpenView = 44;
inline constexpr int Tag_CloseView = 45;
inline constexpr int Tag_Query = 46;
inline constexpr int Tag_Filter = 47;
inline constexpr int Tag_Commit = 52;
inline constexpr int Tag_Rollback = 53;
inline constexpr int Tag_Transact = 55;
inline constexpr int Tag_DBCommand = 58;
inline constexpr int Tag_Expression = 62;
inline constexpr int Tag_Asynchronous = 75;

// The current defaults, indexed by tag number. One request may set a default while machines of
// other requests read, so the settings are accessed only through the functions below.
extern TagErrorSetting tag_default_errorsettings[tag_count];
// The defaults as shipped.
extern const TagErrorSetting original_tag_default_errorsettings[tag_count];

// Copies the settings of the current defaults into a machine's table of tag_count entries. Any
// thread. The names are the same in every table.
void CopyDefaultErrorSettings(int* table);
// Read and set the current default of a tag. An invalid number reads as 0 and is not set. Any
// thread; machines made later see the change.
int DefaultErrorSetting(int tag);
void SetDefaultErrorSetting(int tag, int settings);

#endif
