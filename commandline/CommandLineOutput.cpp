// A failed write ends the script.
// Tested in tests/commandline/CommandLineOutputTest.cpp.

#include "commandline/CommandLineOutput.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/core/memcmpi.h"
#include "base/systems/unix/UNIXApplication.h"

CommandLineOutput::CommandLineOutput(UNIXApplication* application, int buffered, int buffersize)
    : StandardOutput(buffered, buffersize), application(application) {}

int CommandLineOutput::Write_Error(const char* text, int length) {
  errors_written = true;
  if (!errors_separate) return StandardOutput::Write_Error(text, length);
  if (state != HeaderState::Open) Flush();
  // The message is that the script was ended, because of the output, whose reader may just have
  // left.
  if (first_error != 0) return length;
  if (length < 0) length = static_cast<int>(strlen(text));
  // Without a copy: the message may be that there is no memory.
  fwrite(text, 1, static_cast<size_t>(length), stderr);
  if (length == 0 || text[length - 1] != '\n') fputc('\n', stderr);
  return length;
}

// A field of the same name is replaced, as in the engine's output.
int CommandLineOutput::Header(const char* name, int namelength, int nameowned, const char* value,
                              int valuelength, int valueowned) {
  const std::string_view key(name, namelength < 0 ? strlen(name) : static_cast<size_t>(namelength));
  const std::string_view text(value,
                              valuelength < 0 ? strlen(value) : static_cast<size_t>(valuelength));
  const bool taken = state == HeaderState::Open;
  if (taken) {
    auto same = std::find_if(fields.begin(), fields.end(), [&](const auto& field) {
      return field.first.size() == key.size() &&
             memcmpi(field.first.data(), key.data(), key.size()) == 0;
    });
    if (same == fields.end()) {
      fields.emplace_back(key, text);
    } else {
      same->second = text;
    }
  }
  if (nameowned) delete[] name;
  if (valueowned) delete[] value;
  return taken ? 1 : 0;
}

// A page without a byte has header fields, too.
int CommandLineOutput::Flush() {
  const int written = StandardOutput::Flush();
  if (state == HeaderState::Open) WriteHeaders();
  return written;
}

int CommandLineOutput::DoWrite(const char* text, int length) {
  if (state == HeaderState::Open && !WriteHeaders()) return -1;
  return Send(text, length);
}

bool CommandLineOutput::WriteHeaders() {
  state = HeaderState::Written;
  std::string head;
  for (const auto& [name, value] : fields)
    head.append(name).append(": ").append(value).append("\n");
  head += "\n";
  const auto length = static_cast<int>(head.size());
  return Send(head.data(), length) == length;
}

int CommandLineOutput::Send(const char* text, int length) {
  errno = 0;
  const int written = StandardOutput::DoWrite(text, length);
  if (written < length && first_error == 0) {
    first_error = errno ? errno : EIO;
    application->Cancelled();
  }
  return written;
}
