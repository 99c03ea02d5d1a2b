// The dialogue with a POP3 server, and the files of its messages. Tested in
// tests/base/network/POP3Test.cpp and POP3FilesTest.cpp.
//
//   Messages   the head and the file of one message
//   Commands   what is sent
//   Replies    what the lines of the server mean
//   Results    the variables of a message

#include "base/network/POP3.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "base/compiled/VariableHash.h"
#include "base/core/CLocale.h"
#include "base/core/MeasuredLength.h"
#include "base/core/RunLimit.h"
#include "base/host/Config.h"
#include "base/host/File.h"
#include "base/host/ZephApplication.h"
#include "base/network/NetworkConnection.h"
#include "base/network/NetworkManager.h"

namespace {

constexpr int kPort = 110;
constexpr int kLineHint = 512;     // bytes
constexpr int kFileBuffer = 8192;  // bytes

char* Copied(const char* text, int length) {
  char* const copy = new char[static_cast<size_t>(length) + 1];
  memcpy(copy, text, static_cast<size_t>(length));
  copy[length] = '\0';
  return copy;
}

// The position of the byte at or after start, or -1.
int Find(const char* text, int length, char byte, int start = 0) {
  if (start >= length) return -1;
  const void* const found = memchr(text + start, byte, static_cast<size_t>(length - start));
  return found ? static_cast<int>(static_cast<const char*>(found) - text) : -1;
}

// The number that the bytes begin with, 0 without one. What is beyond an int is the nearest int.
int Number(const char* text, int length) {
  const String terminated(text, length);
  return static_cast<int>(std::clamp<long>(LeadingNumber(terminated.data), INT_MIN, INT_MAX));
}

bool IsError(const char* line, int length) {
  return length > 0 && line[0] == '-';
}

}  // namespace

// --- Messages ------------------------------------------------------------------------------------

POP3Header::POP3Header(const char* header_name, int header_name_length, const char* header_value,
                       int header_value_length)
    : name(Copied(header_name, header_name_length)), name_length(header_name_length) {
  std::unique_ptr<char[]> guard(name);
  value = Copied(header_value, header_value_length);
  value_length = header_value_length;
  static_cast<void>(guard.release());
}

POP3Header::~POP3Header() {
  delete[] name;
  delete[] value;
}

POP3Message::POP3Message(POP3Message&& other) noexcept
    : filename(std::move(other.filename)),
      file(std::exchange(other.file, nullptr)),
      in_body(other.in_body),
      number(other.number),
      size(other.size),
      header_table(std::move(other.header_table)),
      error_text(std::move(other.error_text)),
      buffer(std::move(other.buffer)),
      used(std::exchange(other.used, 0)) {}

POP3Message::~POP3Message() {
  try {
    static_cast<void>(CloseFile());
  } catch (const std::bad_alloc&) {
    // What could not be written is lost, as if the message had broken off earlier.
  }
}

void POP3Message::OpenFile(File* opened, const char* name) {
  std::unique_ptr<File> guard(opened);
  static_cast<void>(CloseFile());
  header_table.reset();
  error_text.destroy();
  in_body = 0;
  filename.assign(name, -1);
  buffer.reset(new char[kFileBuffer]);
  file = guard.release();
}

void POP3Message::SaveLine(const char* line, int length) {
  if (!in_body) {
    if (length == 0) {
      in_body = 1;
    } else {
      SaveHeader(line, length);
    }
  }
  Append(line, length);
  Append("\n", 1);
}

// Only a colon before a blank ends the name. The value begins after the blank. A line without both,
// such as the second line of a folded header, is no header.
void POP3Message::SaveHeader(const char* line, int length) {
  int colon = Find(line, length, ':');
  while (colon >= 0 && (colon + 1 >= length || line[colon + 1] != ' ')) {
    colon = Find(line, length, ':', colon + 1);
  }
  if (colon < 0) return;
  if (!header_table) header_table = std::make_unique<POP3HeaderTable>(1, 1, 12, 512);
  if (header_table->Find(line, colon)) return;
  const int value = colon + 2;
  auto header = std::make_unique<POP3Header>(line, colon, line + value, length - value);
  header_table->Insert(header.get());
  static_cast<void>(header.release());
}

bool POP3Message::headers(const char* name, int length, const char** value, int* value_length) {
  POP3Header* const header = header_table ? header_table->Find(name, length) : nullptr;
  if (!header) return false;
  *value = header->value;
  *value_length = header->value_length;
  return true;
}

void POP3Message::Append(const char* bytes, int length) {
  if (!file) return;
  if (length > kFileBuffer - used) WriteAll(file, buffer.get(), std::exchange(used, 0));
  if (length > kFileBuffer) {
    WriteAll(file, bytes, length);
    return;
  }
  memcpy(buffer.get() + used, bytes, static_cast<size_t>(length));
  used += length;
}

void POP3Message::WriteAll(File* to, const char* bytes, int length) {
  while (length > 0 && !error_text.data) {
    const int count = to->Write(bytes, length);
    if (count <= 0) {
      Error(to->error());
      return;
    }
    bytes += count;
    length -= count;
  }
}

bool POP3Message::CloseFile() {
  if (!file) return true;
  const std::unique_ptr<File> closing(std::exchange(file, nullptr));
  const std::unique_ptr<char[]> left(std::move(buffer));
  WriteAll(closing.get(), left.get(), std::exchange(used, 0));
  return !error_text.data;
}

// A failure has a text, even if the file has none.
void POP3Message::Error(const String& text) {
  error_text.assign(text.data, text.length);
}

// --- Commands ------------------------------------------------------------------------------------

POP3::POP3(ZephApplication* application, ZephVM* vm, VariableHash* variables,
           const String& directory)
    : Feature(application, vm, Type_POP3),
      variables(variables),
      timeout(application->config()->value_integer(Config_timeout_mail)),
      directory(directory),
      default_subject("(no subject)") {}

POP3::~POP3() {
  try {
    POP3::Disconnect();
  } catch (const std::bad_alloc&) {
    // The text of a failed write needs memory. The connection is closed with its owner.
  }
}

// The reply is not read: the server has all that it needs, and the script does not wait for it.
void POP3::Disconnect() {
  if (!connection) return;
  static_cast<void>(connection->Write("QUIT\r\n", 6, timeout));
  connection.reset();
}

int POP3::Connect(const char* host, int length, int allocated, int* own) {
  String name;
  if (*own) {
    name.assign_nocopy(const_cast<char*>(host), length, allocated);
    *own = 0;
  } else {
    name.assign(host, length);
  }
  NetworkManager* const manager = application->networkmanager();
  // The attempt has the limit of all connections, not that of mail.
  if (manager) connection.reset(manager->Connect(name.data, kPort, 0));
  return connection ? ReadResponses() : Failed;
}

int POP3::Login(const char* user, int user_length, const char* password, int password_length) {
  const struct {
    const char* verb;
    const char* text;
    int length;
  } commands[] = {{"USER ", user, user_length}, {"PASS ", password, password_length}};
  state = Status;
  for (const auto& command : commands) {
    String line(command.verb, 5);
    line.cat(command.text, command.length);
    line.cat("\r\n", 2);
    const int result = SendCommand(line.data, line.length);
    if (result != Done) return result;
  }
  return Done;
}

int POP3::GetStat() {
  state = Counting;
  return SendCommand("STAT\r\n", 6);
}

int POP3::BuildMessageList() {
  next_state = Listing;
  return SendCommand("LIST\r\n", 6);
}

POP3Message* POP3::Current() {
  const bool listed = current >= 0 && static_cast<size_t>(current) < messages.size();
  return listed ? &messages[static_cast<size_t>(current)] : nullptr;
}

int POP3::GetFirstMessage() {
  current = 0;
  POP3Message* const message = Current();
  return message && message->number != 0 ? GetMessage(message) : Empty;
}

int POP3::GetNextMessage() {
  current++;
  POP3Message* const message = Current();
  return message && message->number != 0 ? GetMessage(message) : Done;
}

int POP3::GetMessage(POP3Message* message) {
  char prefix[32];
  snprintf(prefix, sizeof prefix, "ZPPOPM.%x", static_cast<unsigned>(message->number));
  FileManager* const manager = application->filemanager();
  char* name = nullptr;
  File* const file = manager->MakeTemporary(ZephPath_Data, directory.data ? directory.data : "",
                                            prefix, &name, FileMode_Write);
  if (!file) {
    Error(manager->error());
    return Failed;
  }
  const std::unique_ptr<char[]> owned_name(name);
  message->OpenFile(file, name);
  state = Status;
  next_state = Retrieving;
  const int result = SendNumbered("RETR", message->number);
  if (result != Done) return result;
  SetVariables(message);
  message->ForgetHeaders();
  return More;
}

int POP3::DeleteMessage() {
  state = Status;
  POP3Message* const message = Current();
  if (!message || message->number == 0) return Fail("No messages exist");
  return SendNumbered("DELE", message->number);
}

int POP3::SendNumbered(const char* verb, int number) {
  char line[32];
  const int length = snprintf(line, sizeof line, "%s %u\r\n", verb, static_cast<unsigned>(number));
  return SendCommand(line, length);
}

int POP3::SendCommand(const char* text, int length) {
  if (!connection || connection->Write(text, length, timeout) < 1) {
    return Fail("Error sending data to server");
  }
  return ReadResponses();
}

// --- Replies -------------------------------------------------------------------------------------

// A server that never ends its reply is cut off with the script. A line without a CR keeps its LF.
int POP3::ReadResponses() {
  String line;
  int result;
  do {
    if (RunLimit::Over()) return Failed;
    if (connection->ReadLine(line, timeout, kLineHint) < 0) {
      Error(connection->error());
      return Failed;
    }
    const int end = Find(line.data, line.length, '\r');
    result = ProcessResponse(line.data, end >= 0 ? end : line.length);
  } while (result == More);
  return result;
}

int POP3::ProcessResponse(const char* line, int length) {
  switch (state) {
    case Listing: return ProcessListing(line, length);
    case Retrieving: return ProcessRetrieving(line, length);
    case Counting: return ProcessCount(line, length);
    default: return ProcessStatus(line, length);
  }
}

// Everything but a minus is a success, an empty line too.
int POP3::ProcessStatus(const char* line, int length) {
  if (!IsError(line, length)) {
    state = next_state;
    return state != Status ? More : Done;
  }
  const int blank = Find(line, length, ' ');
  if (blank < 0) return Invalid();
  Error(line + blank + 1, length - blank - 1);
  return Failed;
}

int POP3::ProcessListing(const char* line, int length) {
  const char* text;
  int text_length;
  if (EOT(line, length, &text, &text_length)) {
    current = 0;
    next_state = Status;
    state = Status;
    return Done;
  }
  const int blank = Find(line, length, ' ');
  if (blank < 0) return Invalid();
  if (current >= message_count) return Fail("More messages than expected returned from server");
  // The count of STAT may be anything, so there is only room for what has been listed.
  POP3Message& message = messages.emplace_back();
  message.number = Number(line, blank);
  message.size = Number(line + blank + 1, length - blank - 1);
  current++;
  return More;
}

int POP3::ProcessRetrieving(const char* line, int length) {
  POP3Message* const message = Current();
  const char* text;
  int text_length;
  if (!EOT(line, length, &text, &text_length)) {
    if (message) message->SaveLine(text, text_length);
    return More;
  }
  next_state = Status;
  // A message that is not wholly in its file has failed, or the script might delete the only copy.
  if (message && !message->CloseFile()) {
    Error(message->error());
    return Failed;
  }
  return Done;
}

int POP3::ProcessCount(const char* line, int length) {
  if (IsError(line, length)) return ProcessStatus(line, length);
  const int first = Find(line, length, ' ');
  const int second = first >= 0 ? Find(line, length, ' ', first + 1) : -1;
  if (second < 0) return Invalid();
  messages.clear();
  message_count = std::max(Number(line + first + 1, second - first - 1), 0);
  next_state = Status;
  state = Status;
  return Done;
}

bool POP3::EOT(const char* line, int length, const char** text, int* text_length) {
  *text = line;
  *text_length = length;
  if (length == 1 && line[0] == '.') {
    *text_length = 0;
    return true;
  }
  if (length >= 2 && line[0] == '.' && line[1] == '.') {
    const int zero = Find(line, length, '0', 1);
    *text = line + (zero >= 0 ? zero : length);
    *text_length = zero >= 0 ? length - zero : 0;
  }
  return false;
}

int POP3::Fail(const char* text) {
  Error(text, -1);
  return Failed;
}

int POP3::CurrentMessageIndex() {
  return current;
}

const String& POP3::error() {
  return error_text;
}

void POP3::Error(const char* text, int length) {
  error_text.assign(text, length);
}

// --- Results -------------------------------------------------------------------------------------

void POP3::Set(const char* name, const char* text, int length) {
  variables->SetVariable(name, -1, text, length);
}

void POP3::SetVariables(POP3Message* message) {
  const auto header = [message](const char* name, int name_length, const char** value,
                                int* length) {
    *value = "";
    *length = 0;
    message->headers(name, name_length, value, length);
  };
  const char* sender;
  const char* text;
  int sender_length, length;
  Set("messagebody", message->filename.data, message->filename.length);
  header("Subject", 7, &text, &length);
  if (length > 0) {
    Set("messagesubject", text, length);
  } else {
    Set("messagesubject", default_subject.data, default_subject.length);
  }
  header("From", 4, &sender, &sender_length);
  Set("messagesender", sender, sender_length);
  header("Reply-To", 8, &text, &length);
  if (length > 0) {
    Set("messagereplyto", text, length);
  } else {
    Set("messagereplyto", sender, sender_length);
  }
  header("Date", 4, &text, &length);
  Set("messagedate", text, length);
}
