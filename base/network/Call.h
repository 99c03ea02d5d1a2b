// Call, the feature of ZpCALL: sends a request and gives the script the elements of the response,
// one for each pass of a loop. Tested in tests/base/network/CallRequestTest.cpp and
// CallScannerTest.cpp.

#ifndef ZEPH_BASE_CALL_H
#define ZEPH_BASE_CALL_H

#include <memory>
#include <vector>

#include "base/core/List.h"
#include "base/core/StringClass.h"
#include "base/machine/Feature.h"
#include "base/network/CallScanner.h"
#include "base/values/VariableKinds.h"

class File;
class HTTPResponseStream;
class NetworkConnection;
class NetworkManager;
class VariableHash;

// A file to be sent. The order of the fields is fixed.
class CallFile {
 public:
  // Copies the texts and owns the file.
  CallFile(const String& name, File* file, const char* content_type, const String& field);
  virtual ~CallFile();
  CallFile(const CallFile&) = delete;
  CallFile& operator=(const CallFile&) = delete;

  String name;  // the path as the script gave it
  std::unique_ptr<File> file;
  String content_type;
  String field;  // the name of the variable
};

// What a script says about a call. A certificate text that is empty counts as not given.
struct CallArguments {
  String url;
  String method;
  String fields;  // names of variables to send, separated by commas
  String files;   // names of variables that hold paths of files to send, separated by commas
  String content_type;
  String certificate_file;
  String certificate_type;
  String extra_headers;  // whole lines with their CR LF, or empty
  int timeout = 0;       // in seconds, 0 for the configured one, below 0 for none
  std::unique_ptr<String> password;
  String certificate_data;
};

// One call. The opening instruction makes it and connects; each pass of the loop finds an element.
// The connection is open until the call is deleted.
//
// All results are variables of one table. That is the local variables of the frame in which the
// call was made; the user of a call makes sure that the table still exists.
class Call : public Feature {
 public:
  enum Result : int { Found = 0, End = 2, Failed = 3 };

  // Both tables and machine are borrowed. Takes the arguments' texts.
  Call(ZephApplication* application, ZephVM* vm, VariableHash* variables,
       CallArguments&& arguments);
  ~Call() override;

  // Sends the request, reads the head of the response, and sets the variables of the head. Returns
  // false on failure, with the text in error(). Once only. The extra headers are whole lines;
  // length is theirs in bytes.
  [[nodiscard]] bool Connect(const char* extra_headers, int extra_headers_length);
  // Finds the next element and sets the variables of an element. The first call never returns End:
  // if the body is empty it returns Found and sets nothing. Failed leaves the text in error().
  // REQUIRES: Connect has returned true.
  [[nodiscard]] Result Find_Next_Element();

  // The table of the results, which it borrows.
  const VariableHash* table() const { return variables; }

 private:
  // A result's place in the table, looked up at its first use. Places never change.
  struct ResultName {
    const char* text;
    int length;
    int position = -1;
  };
  // The results of one name: its array, and the variables with a number after the name.
  struct CountedName {
    ResultName bare;
    std::vector<int> numbered;  // positions, the first being that of number 1; -1 if unknown
  };
  // What the method says about the request's body.
  enum Kind : int { NoBody = 0, Query = 1, Form = 2, Raw = 3 };

  void ChooseKind();
  bool BuildFileList();
  bool AddFile(const char* variable_name, int length);
  bool OpenURLEncodedConnection(const char* headers, int length);
  bool OpenMultipartConnection();
  bool AppendPairs(String* text);
  int BuildPart(const String& boundary, Variable* field);
  bool SendParts(const String& boundary, const std::vector<long>& lengths);
  bool SendFile(const String& boundary, CallFile* sent, long length);
  bool Write(const String& text);
  bool Open(const char* body, int length, const char* headers, int headers_length);
  bool UnableToOpen(const String& name, const String& reason);
  bool Process_Headers();

  Result TextElement();
  Result TagElement();
  Result GetNameValuePairs();
  Result Fail();
  void ClearAttributeVariables();
  Variable* At(ResultName* result);
  void Set(ResultName* result, const String& text);
  void SetNumber(ResultName* result, int number);
  void Set_Counted_Variable(CountedName* counted, int number, const String& text);

  VariableHash* variables;
  std::unique_ptr<NetworkConnection> connection;
  std::unique_ptr<HTTPResponseStream> response;
  String url;
  String method;
  String verb;
  String fields;
  String files;
  String content_type;
  std::unique_ptr<String> certificate_file;  // these four are null if not given
  std::unique_ptr<String> certificate_data;
  std::unique_ptr<String> certificate_type;
  std::unique_ptr<String> password;
  int buffer_size;  // in bytes: the setting bufsz_call
  std::unique_ptr<CallBuffer> buffer;
  List<CallFile> file_list;
  std::unique_ptr<VariableList> field_variables;
  List<String> parts;  // of a multipart body, without the files
  bool logging;
  int timeout;              // of each wait, in seconds
  int content_buffer_size;  // in bytes: the setting bufsz_content
  int first = 1;            // until the first element was asked for
  int kind = Query;
  int attribute_count = 0;  // of the newest tag that was not a comment, 0 after a text

  std::unique_ptr<CallScanner> scanner;
  bool writable = true;  // until a write has failed
  // The present element, kept for its memory.
  String value;
  String name;
  String attribute_name;
  String attribute;
  ResultName object_type;
  ResultName object_value;
  ResultName object_element;
  ResultName object_count;
  CountedName attribute_names;
  CountedName attribute_values;
};

#endif
