// POP3, the feature of ZpPOP: logs into a mailbox and gives the script its messages, one for each
// pass of a loop. Tested in tests/base/network/POP3Test.cpp, POP3FilesTest.cpp and
// POP3InstructionTest.cpp.

#ifndef ZEPH_BASE_POP3_H
#define ZEPH_BASE_POP3_H

#include <memory>
#include <string_view>
#include <vector>

#include "base/core/HashTable.h"
#include "base/core/StringClass.h"
#include "base/machine/Feature.h"

class File;
class NetworkConnection;
class VariableHash;

// A line of a message's head. The order of the fields is fixed.
class POP3Header {
 public:
  // Copies both texts; lengths in bytes.
  POP3Header(const char* header_name, int header_name_length, const char* header_value,
             int header_value_length);
  ~POP3Header();
  POP3Header(const POP3Header&) = delete;
  POP3Header& operator=(const POP3Header&) = delete;

  char* name;
  int name_length;
  char* value;
  int value_length;
};

struct POP3HeaderName {
  static std::string_view Key(POP3Header* header) {
    return KeyText(header->name, header->name_length);
  }
};
using POP3HeaderTable = NamedHashTable<POP3Header, POP3HeaderName>;

// One message of a mailbox. A server may list millions, so an unused one is small: its table and
// its buffer are made when a message is fetched. The order of the fields is fixed.
class POP3Message {
 public:
  POP3Message() = default;
  POP3Message(POP3Message&& other) noexcept;
  POP3Message& operator=(POP3Message&& other) = delete;
  // Closes the file, which stays on the disk.
  ~POP3Message();

  // Begins a message: forgets an earlier file and its headers. Owns the file; copies the name.
  void OpenFile(File* opened, const char* name);
  // Saves a line without its end; length in bytes. A line end is added, LF. Lines up to the first
  // empty one are the head, of which the headers are kept. After a failed write the other lines are
  // dropped; CloseFile reports it.
  void SaveLine(const char* line, int length);
  // Writes what is left and closes the file. Returns false if not all lines could be saved, with
  // the text in error(). Without a file it does nothing and returns true.
  [[nodiscard]] bool CloseFile();
  // The value of the first header of that name, in any case. Returns false without one; then the
  // results are unchanged. The value is borrowed until the next OpenFile, and is not terminated.
  bool headers(const char* name, int length, const char** value, int* value_length);
  // Frees the headers. A mailbox may have millions of messages, so only the present one has them.
  void ForgetHeaders() { header_table.reset(); }

  void Error(const String& text);
  const String& error() const { return error_text; }

  String filename;       // relative to the data directory
  File* file = nullptr;  // owned; null when no message is being written
  int in_body = 0;
  int number = 0;  // as the server counts; 0 for a slot that it has not filled
  int size = 0;    // in bytes, as the server says

 private:
  void SaveHeader(const char* line, int length);
  void Append(const char* bytes, int length);
  void WriteAll(File* to, const char* bytes, int length);

  std::unique_ptr<POP3HeaderTable> header_table;  // null until there is a header
  String error_text;                              // of the first write that has failed, else null
  // Lines that are not written yet; null while no file is open.
  std::unique_ptr<char[]> buffer;
  int used = 0;
};

// One session with a server, plain POP3 on port 110. The connection is open until the object is
// deleted; the deletion ends the session, and with that the server removes the messages that were
// marked as deleted.
//
// The dialogue is a state machine. A command sets state and next_state, and each line that comes
// goes to ProcessResponse, which decides whether more lines belong to the reply:
//
//   Status      one line. After a success, the state is next_state; if that is not Status, its
//               lines follow
//   Listing     the lines of a LIST, one for each message
//   Retrieving  the lines of a RETR, which are saved
//   Counting    the one line of a STAT
//
// The results are variables of one table: the local variables of the frame in which the mailbox was
// opened. The user of a mailbox makes sure that the table still exists.
//
// The order of the virtual operations is fixed.
class POP3 : public Feature {
 public:
  // Results of all operations on the server. The meaning of Done and More is the operation's.
  enum Result : int { Done = 0, More = 1, Empty = 2, Failed = 3 };
  enum State : int { Status = 0, Listing = 1, Retrieving = 2, Counting = 3 };

  // All are borrowed. The directory of the message files is a path in the data directory.
  POP3(ZephApplication* application, ZephVM* vm, VariableHash* variables, const String& directory);
  // Says QUIT if there is a connection, and closes it. The messages' files stay.
  ~POP3() override;

  // All of these return Done, or Failed with the text in error(). Lengths are in bytes.
  //
  // Connects to the server and reads its greeting. If *own is set, adopts the host's name, which
  // was made with new[] and has `allocated` bytes, and clears the flag. The error of a connection
  // that cannot be made has no text.
  [[nodiscard]] virtual int Connect(const char* host, int length, int allocated, int* own);
  [[nodiscard]] virtual int Login(const char* user, int user_length, const char* password,
                                  int password_length);
  // Asks for the count of messages.
  [[nodiscard]] virtual int GetStat();
  // Asks for the numbers of all messages. REQUIRES: GetStat.
  [[nodiscard]] virtual int BuildMessageList();

  // Fetches the first message: saves it in a file and sets its variables. Returns More; Empty if
  // there is none; Failed with the text in error(). REQUIRES: BuildMessageList.
  [[nodiscard]] virtual int GetFirstMessage();
  // Fetches the next one. Returns More, Done at the end, or Failed.
  [[nodiscard]] virtual int GetNextMessage();
  // Marks the present message as deleted. Returns Done, or Failed, also if there is none.
  [[nodiscard]] virtual int DeleteMessage();
  // Fetches the message, which is the present one. Returns More or Failed.
  [[nodiscard]] virtual int GetMessage(POP3Message* message);

  // Sends a whole line with its end and reads the reply.
  [[nodiscard]] virtual int SendCommand(const char* text, int length);
  // Reads lines until one ends the reply.
  [[nodiscard]] virtual int ReadResponses();
  // Takes a line without its end. Returns More if the reply goes on.
  [[nodiscard]] virtual int ProcessResponse(const char* line, int length);
  // Ends the session and closes the connection.
  virtual void Disconnect();

  // Of the present message, counted from 0.
  virtual int CurrentMessageIndex();
  virtual const String& error();
  // Copies the text; a length of -1 means strlen.
  virtual void Error(const char* text, int length);
  using Feature::Error;

  // The table of the results, which it borrows.
  const VariableHash* table() const { return variables; }

  // Whether the line is the end of a reply of several lines. If not, *text receives what counts of
  // the line, which may be the line itself or a part of it; at the end it is empty.
  //
  // A server puts a dot before a line that begins with one. It is not that dot that is removed:
  // everything before the first digit 0 goes, so that a line without a 0 is empty.
  static bool EOT(const char* line, int length, const char** text, int* text_length);

 private:
  int ProcessStatus(const char* line, int length);
  int ProcessListing(const char* line, int length);
  int ProcessRetrieving(const char* line, int length);
  int ProcessCount(const char* line, int length);
  int Fail(const char* text);
  int Invalid() { return Fail("Invalid response from server"); }
  // The message at the present place; null after the last one that the server has listed.
  POP3Message* Current();
  int SendNumbered(const char* verb, int number);
  void SetVariables(POP3Message* message);
  void Set(const char* name, const char* text, int length);

  VariableHash* variables;
  int timeout;  // of each wait, in seconds: the setting timeout_mail
  int state = Status;
  int next_state = Status;
  std::unique_ptr<NetworkConnection> connection;
  String directory;
  // As many as the server has listed, at most message_count.
  std::vector<POP3Message> messages;
  int message_count = 0;  // as the server says, at least 0
  int current = 0;
  String default_subject;
};

#endif
