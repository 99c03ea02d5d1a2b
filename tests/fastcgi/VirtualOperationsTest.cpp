// The order of the application's virtual operations, which extension libraries depend on. It is
// read from pointers to members, which contain the offset of the slot in the table, plus one.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "fastcgi/FastCGIApplication.h"

namespace {

// The slot, counted from 0; -1 for an operation that is not virtual.
template <class Member>
int Slot(Member member) {
  std::intptr_t words[2];
  static_assert(sizeof member == sizeof words);
  memcpy(words, &member, sizeof words);
  return words[0] & 1 ? static_cast<int>((words[0] - 1) / static_cast<int>(sizeof(void*))) : -1;
}

TEST(VirtualOperations, StandInTheStatedOrder) {
  using Base = ZephApplication;
  using Host = FastCGIBaseApplication;
  const struct {
    const char* name;
    int slot;
  } operations[] = {
#define OPERATION(type, name) {#name, Slot(&type::name)}
      OPERATION(Base, networkmanager),
      OPERATION(Base, filemanager),
      OPERATION(Base, librarymanager),
      OPERATION(Base, commercemanager),
      OPERATION(Base, databasemanager),
      OPERATION(Base, systemlibrarymanager),
      OPERATION(Base, config),
      OPERATION(Base, basename),
      OPERATION(Base, hostname),
      OPERATION(Base, currentdate),
      OPERATION(Base, lasterror),
      OPERATION(Base, output),
      OPERATION(Base, SetOutput),
      OPERATION(Base, Crypt),
      OPERATION(Base, MakeSessionID),
      OPERATION(Base, ResetGlobalTimeout),
      OPERATION(Base, ResetPOSTTimeout),
      OPERATION(Base, ClearPOSTTimeout),
      OPERATION(Base, cancelled),
      OPERATION(Base, processid),
      OPERATION(Base, threadid),
      OPERATION(Base, lockhostname),
      OPERATION(Base, lockexpiration),
      {"Error(String)", Slot(static_cast<void (Base::*)(const String&)>(&Base::Error))},
      {"Error(text)", Slot(static_cast<void (Base::*)(const char*)>(&Base::Error))},
      OPERATION(Base, OutputError),
      OPERATION(Base, Sleep),
      OPERATION(Base, GetUserID),
      OPERATION(Base, BeginAsynchronousTask),
      OPERATION(Base, AsynchronousSleep),
      OPERATION(Base, Heartbeat),
      OPERATION(Base, TimeRemaining),
      OPERATION(Base, language),
      OPERATION(Base, languagecount),
      OPERATION(Base, defaultlanguage),
      OPERATION(Base, defaultlanguagecount),
      OPERATION(Base, defaultdatabase),
      OPERATION(Base, defaultdatabasecount),
      OPERATION(Base, SetLanguage),
      OPERATION(Base, SetDefaultLanguage),
      OPERATION(Base, SetDefaultDatabase),
      OPERATION(Base, charset),
      OPERATION(Base, charsetcount),
      OPERATION(Base, SetCharacterSet),
      OPERATION(Base, GetCharacterSet),
      OPERATION(Base, CharacterSetIsUTF8),
      OPERATION(Base, SSL_Available),
      OPERATION(Base, SSL_Initialize),
      OPERATION(Base, SSL_GetFunction),
      OPERATION(Base, ParseLogFilter),
      OPERATION(Base, Log),
      OPERATION(Base, Log_Description),
      OPERATION(Base, process_name),
      OPERATION(Base, SetProcessName),
      OPERATION(Host, ProcessLogSettings),
      OPERATION(Host, ProcessLogCookie),
      OPERATION(Host, Cancelled),
      OPERATION(Host, SSL_Configure),
      OPERATION(FastCGIApplication, ConfigurationError),
#undef OPERATION
  };
  // The destructor has the first two.
  int slot = 2;
  for (const auto& operation : operations) {
    SCOPED_TRACE(operation.name);
    EXPECT_EQ(operation.slot, slot++);
  }
}

}  // namespace
