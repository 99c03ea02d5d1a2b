// The request and the results of a call. Tested in tests/base/network/CallRequestTest.cpp and
// CallScannerTest.cpp.
//
//   Request   the method, the files, the two forms of a request
//   Response  the head's variables, the elements and their variables

#include "base/network/Call.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "base/compiled/VariableHash.h"
#include "base/core/RunLimit.h"
#include "base/core/ascii.h"
#include "base/host/Config.h"
#include "base/host/File.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"
#include "base/network/HTTPResponseStream.h"
#include "base/network/LoggingNetworkConnection.h"
#include "base/network/NetworkConnection.h"
#include "base/network/NetworkManager.h"

namespace {

// Variables between two looks at the time limit.
constexpr int kVariables = 1024;

struct Method {
  const char* name;
  int kind;
  const char* verb;
  const char* content_type;
};

// The numbers are those of Call::Kind. The verb is null where it is the method itself.
const Method kMethods[] = {
    {"GET", 1, nullptr, ""},
    {"POST", 2, nullptr, ""},
    {"HEAD", 0, nullptr, ""},
    {"XML", 3, "POST", "text/xml"},
    {"RAW", 3, "POST", "text/plain"},
    {"OPTIONS", 3, nullptr, "text/plain"},
    {"PUT", 3, nullptr, "text/plain"},
    {"DELETE", 3, nullptr, "text/plain"},
    {"TRACE", 3, nullptr, "text/plain"},
    {"CONNECT", 3, nullptr, "text/plain"},
    {"PATCH", 3, nullptr, "text/plain"},
    {"LINK", 3, nullptr, "text/plain"},
    {"UNLINK", 3, nullptr, "text/plain"},
};

const char* Bytes(const String& text) {
  return text.data ? text.data : "";
}

bool Equals(const String& text, const char* other) {
  const size_t length = strlen(other);
  return static_cast<size_t>(text.length) == length && memcmp(Bytes(text), other, length) == 0;
}

const char* TextOrNull(const std::unique_ptr<String>& text) {
  return text ? text->data : nullptr;
}

std::unique_ptr<String> GivenText(String&& text) {
  return text.length > 0 ? std::make_unique<String>(std::move(text)) : nullptr;
}

void CatNumber(String* text, long number) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  text->cat(digits, static_cast<int>(end - digits));
}

void CatEncoded(String* text, const String& plain) {
  int length, size;
  const std::unique_ptr<char[]> encoded(
      ZephApplication::EncodeAttribute(Bytes(plain), plain.length, &length, &size));
  text->cat(encoded.get(), length);
}

// What a file's part has around the five texts whose lengths vary.
constexpr int kFileOverhead = sizeof
    "--\r\n"
    "Content-Disposition: form-data; name=\"\"; filename=\"\"\r\n"
    "Content-Type: \r\n\r\n"
    "\r\n" - 1;
static_assert(kFileOverhead == 78);

}  // namespace

CallFile::CallFile(const String& name, File* file, const char* content_type, const String& field)
    : name(name), file(file), content_type(content_type, -1), field(field) {}

CallFile::~CallFile() = default;

Call::Call(ZephApplication* application, ZephVM* vm, VariableHash* variables,
           CallArguments&& arguments)
    : Feature(application, vm, Type_Call),
      variables(variables),
      url(std::move(arguments.url)),
      method(std::move(arguments.method)),
      fields(std::move(arguments.fields)),
      files(std::move(arguments.files)),
      content_type(std::move(arguments.content_type)),
      password(std::move(arguments.password)),
      file_list(1),
      parts(1),
      logging(vm->WantsLog(Log_Call)),
      object_type{"callobjecttype", 14},
      object_value{"callvalue", 9},
      object_element{"callobjectelement", 17},
      object_count{"callobjectnumattributes", 23},
      attribute_names{{"callobjectattribute", 19}, {}},
      attribute_values{{"callobjectvalue", 15}, {}} {
  certificate_file = GivenText(std::move(arguments.certificate_file));
  certificate_data = GivenText(std::move(arguments.certificate_data));
  certificate_type = GivenText(std::move(arguments.certificate_type));
  Config* const config = application->config();
  buffer_size = config->buffer_size(Config_bufsz_call);
  content_buffer_size = config->buffer_size(Config_bufsz_content);
  const int configured = config->value_integer(Config_timeout_call);
  timeout = configured != 0 && arguments.timeout >= 0 ? configured : arguments.timeout;
}

// The stream borrows the connection, and the buffer the stream.
Call::~Call() {
  scanner.reset();
  buffer.reset();
  response.reset();
  connection.reset();
  certificate_file.reset();
  certificate_data.reset();
  certificate_type.reset();
  password.reset();
  field_variables.reset();
  parts.Dump();
  file_list.Dump();
}

// --- Request -------------------------------------------------------------------------------------

bool Call::Connect(const char* extra_headers, int extra_headers_length) {
  method.upcase();
  // Those bytes would end the request line, and the rest of the URL would be headers.
  for (const char c : {'\r', '\n', '\0'}) {
    if (!memchr(Bytes(url), c, static_cast<size_t>(url.length))) continue;
    return UnableToOpen(url, String("A URL must not contain CR, LF or NUL"));
  }
  field_variables = std::make_unique<VariableList>();
  vm->Lookup_VariableList(field_variables.get(), Bytes(fields), fields.length);
  if (vm->stopped()) return false;
  if (files.length > 0 && !BuildFileList()) return false;
  ChooseKind();
  if (file_list.Entries() > 0 ? !OpenMultipartConnection()
                              : !OpenURLEncodedConnection(extra_headers, extra_headers_length)) {
    return false;
  }
  response = std::make_unique<HTTPResponseStream>(connection.get(), timeout);
  if (!Process_Headers()) return false;
  buffer = std::make_unique<CallBuffer>(response.get(), buffer_size);
  scanner = std::make_unique<CallScanner>(buffer.get());
  return true;
}

void Call::ChooseKind() {
  for (const Method& row : kMethods) {
    if (!Equals(method, row.name)) continue;
    kind = row.kind;
    verb.assign(row.verb ? row.verb : row.name, -1);
    if (content_type.length == 0) content_type.assign(row.content_type, -1);
    return;
  }
  const bool has_files = file_list.Entries() > 0;
  kind = has_files ? Form : Query;
  verb.assign(has_files ? "POST" : "GET", -1);
}

// An empty piece of the list is a name without a variable, except after the last comma.
bool Call::BuildFileList() {
  const char* p = Bytes(files);
  const char* const end = p + files.length;
  while (p < end && !RunLimit::Over()) {
    const auto* comma = static_cast<const char*>(memchr(p, ',', static_cast<size_t>(end - p)));
    const char* const stop = comma ? comma : end;
    if (!AddFile(p, static_cast<int>(stop - p))) return false;
    p = stop + 1;
  }
  return !RunLimit::WasCut();
}

bool Call::AddFile(const char* variable_name, int length) {
  VariableList found;
  vm->Lookup_VariableList(&found, variable_name, length);
  if (vm->stopped()) return false;
  Variable* const variable = found.First();
  String path;
  if (variable) path = variable->value();
  if (path.length == 0) {
    Error(String("Empty filename"));
    return false;
  }
  FileManager* const manager = application->filemanager();
  std::unique_ptr<File> file(manager->Open(ZephPath_Data, path.data, FileMode_Read));
  if (!file) {
    String text("Unable to open '", -1);
    text.cat(path.data, path.length);
    text.cat("': ", 3);
    text.cat(Bytes(manager->error()), manager->error().length);
    Error(text);
    return false;
  }
  InsertOwned(file_list,
              std::make_unique<CallFile>(path, file.release(), "unknown", variable->name()),
              ListTail);
  return true;
}

// Appends the fields as name=value&name=value. False if the time is over.
bool Call::AppendPairs(String* text) {
  bool more = false;
  for (Variable* v = field_variables->First(); v; v = field_variables->Next()) {
    if (RunLimit::Over()) return false;
    if (more) text->cat('&');
    more = true;
    CatEncoded(text, v->name());
    text->cat('=');
    CatEncoded(text, v->value());
  }
  return true;
}

bool Call::OpenURLEncodedConnection(const char* headers, int length) {
  const bool has_fields = field_variables->Entries() > 0;
  String body;
  switch (kind) {
    case Query:
      if (has_fields && (url.length == 0 || url.data[url.length - 1] != '?')) url.cat("?", 1);
      return AppendPairs(&url) && Open(nullptr, 0, headers, length);
    case Form:
      content_type.assign("application/x-www-form-urlencoded", -1);
      return AppendPairs(&body) && Open(Bytes(body), body.length, headers, length);
    case Raw:
      for (Variable* v = field_variables->First(); v; v = field_variables->Next()) {
        if (RunLimit::Over()) return false;
        const String& text = v->value();
        body.cat(Bytes(text), text.length);
      }
      return Open(Bytes(body), body.length, headers, length);
    default: return Open(nullptr, 0, headers, length);
  }
}

bool Call::UnableToOpen(const String& name, const String& reason) {
  String text("Unable to open URL '", -1);
  text.cat(Bytes(name), name.length);
  text.cat("': ", 3);
  text.cat(Bytes(reason), reason.length);
  Error(text);
  return false;
}

bool Call::Open(const char* body, int length, const char* headers, int headers_length) {
  NetworkManager* const manager = application->networkmanager();
  if (!manager) return UnableToOpen(url, String("No network"));
  const char* const file = TextOrNull(certificate_file);
  const char* const data = TextOrNull(certificate_data);
  const char* const type = TextOrNull(certificate_type);
  const char* const secret = TextOrNull(password);
  ZephVMLoggingNetworkConnectionData log{vm, Log_Call};
  connection.reset(logging ? manager->OpenURL<ZephVMLoggingNetworkConnection>(
                                 verb.data, Bytes(url), body, Bytes(content_type), length, file,
                                 data, type, secret, headers, headers_length, 1.1, timeout, &log)
                           : manager->OpenURL(verb.data, Bytes(url), body, Bytes(content_type),
                                              length, file, data, type, secret, headers,
                                              headers_length, 1.1, timeout));
  return connection ? true : UnableToOpen(url, manager->error());
}

// The length of the whole body goes out before it, so each file is as long as it was then.
bool Call::OpenMultipartConnection() {
  String boundary("--------------------", -1);
  for (int i = 0; i < 3; i++) CatNumber(&boundary, rand());
  int64_t total = int64_t{boundary.length} + 6;
  for (Variable* v = field_variables->First(); v; v = field_variables->Next()) {
    if (RunLimit::Over()) return false;
    total += BuildPart(boundary, v);
  }
  std::vector<long> lengths;
  for (CallFile* sent = file_list.First(); sent; sent = file_list.Next()) {
    const long length = sent->file->Length();
    if (length < 0) {
      Error(sent->file->error());
      return false;
    }
    lengths.push_back(length);
    total += int64_t{boundary.length} + sent->field.length + sent->name.length +
             sent->content_type.length + kFileOverhead;
    if (length > INT_MAX - std::min<int64_t>(total, INT_MAX)) {
      return UnableToOpen(url, String("The files are too long"));
    }
    total += length;
  }
  if (total > INT_MAX) return UnableToOpen(url, String("The fields are too long"));
  content_type.assign("multipart/form-data; boundary=", -1);
  content_type.cat(boundary.data, boundary.length);
  if (!Open(nullptr, static_cast<int>(total), nullptr, 0)) return false;
  return SendParts(boundary, lengths);
}

// Returns the length of the part.
int Call::BuildPart(const String& boundary, Variable* field) {
  auto part = std::make_unique<String>("--", 2);
  part->cat(boundary.data, boundary.length);
  part->cat("\r\nContent-Disposition: form-data; name=\"", -1);
  const String& field_name = field->name();
  part->cat(Bytes(field_name), field_name.length);
  part->cat("\"\r\n\r\n", -1);
  const String& text = field->value();
  part->cat(Bytes(text), text.length);
  part->cat("\r\n", 2);
  const int length = part->length;
  InsertOwned(parts, std::move(part), ListTail);
  return length;
}

// A failed write does not end the call, because the server may have responded before it closed. If
// it has not, the read of the response fails. Nothing is written after it.
bool Call::Write(const String& text) {
  if (writable) writable = connection->Write(text.data, text.length, timeout) == text.length;
  return writable;
}

bool Call::SendParts(const String& boundary, const std::vector<long>& lengths) {
  for (String* part = parts.First(); part; part = parts.Next()) {
    if (RunLimit::Over()) return false;
    Write(*part);
  }
  size_t i = 0;
  for (CallFile* sent = file_list.First(); sent; sent = file_list.Next()) {
    if (!SendFile(boundary, sent, lengths[i++])) return false;
  }
  String end("--", 2);
  end.cat(boundary.data, boundary.length);
  end.cat("--\r\n", 4);
  Write(end);
  return true;
}

// Sends exactly that many bytes of the file, because the head of the request has promised them. If
// it has become shorter, the call fails: the server would wait for the rest.
bool Call::SendFile(const String& boundary, CallFile* sent, long length) {
  String head("--", 2);
  head.cat(boundary.data, boundary.length);
  head.cat("\r\nContent-Disposition: form-data; name=\"", -1);
  head.cat(sent->field.data, sent->field.length);
  head.cat("\"; filename=\"", -1);
  head.cat(sent->name.data, sent->name.length);
  head.cat("\"\r\nContent-Type: ", -1);
  head.cat(sent->content_type.data, sent->content_type.length);
  head.cat("\r\n\r\n", 4);
  if (!Write(head)) return true;
  const std::unique_ptr<char[]> piece(new char[static_cast<size_t>(content_buffer_size)]);
  while (length > 0) {
    if (RunLimit::Over()) return false;
    const int wanted = static_cast<int>(std::min<long>(length, content_buffer_size));
    const int count = sent->file->Read(piece.get(), wanted);
    if (count <= 0) {
      String text("Unable to read '", -1);
      text.cat(sent->name.data, sent->name.length);
      text.cat("': ", 3);
      const String reason = count < 0 ? sent->file->error() : String("The file has become shorter");
      text.cat(reason.data, reason.length);
      Error(text);
      return false;
    }
    if (connection->Write(piece.get(), count, timeout) != count) {
      writable = false;
      return true;
    }
    length -= count;
  }
  Write(String("\r\n", 2));
  return true;
}

// --- Response ------------------------------------------------------------------------------------

bool Call::Process_Headers() {
  if (!response->Read_Headers()) {
    Error(response->error);
    return false;
  }
  CountedName lines{{"callreturnheader", 16}, {}};
  int count = 0;
  for (auto* line = response->headers.First(); line; line = response->headers.Next()) {
    if (count % kVariables == 0 && RunLimit::Over()) return false;
    Set_Counted_Variable(&lines, ++count, line->text);
  }
  ResultName number{"callnumberofheaders", 19};
  SetNumber(&number, count);
  return true;
}

Call::Result Call::Find_Next_Element() {
  value.Empty();
  const CallScanner::Result text = scanner->ReadText(&value);
  if (text == CallScanner::Failed) return Fail();
  if (first) {
    first = 0;
    if (text == CallScanner::End) return Found;
  }
  if (text == CallScanner::End) return End;
  return value.length > 0 ? TextElement() : TagElement();
}

Call::Result Call::Fail() {
  Error(scanner->error());
  return Failed;
}

Call::Result Call::TextElement() {
  ClearAttributeVariables();
  Set(&object_type, String("text", 4));
  Set(&object_value, value);
  SetNumber(&object_count, 0);
  Set(&object_element, String("", 0));
  return Found;
}

Call::Result Call::TagElement() {
  name.Empty();
  if (scanner->ReadName(&value, &name) == CallScanner::Failed) return Fail();
  if (name.length > 0 && name.data[0] == '!') {
    SetNumber(&object_count, 0);
    if (scanner->ReadComment(&value, name) == CallScanner::Failed) return Fail();
  } else {
    if (GetNameValuePairs() == Failed) return Failed;
  }
  Set(&object_type, String("tag", 3));
  Set(&object_value, value);
  Set(&object_element, name);
  return Found;
}

Call::Result Call::GetNameValuePairs() {
  ClearAttributeVariables();
  CallScanner::Result result;
  while ((result = scanner->GetNextNameValuePair(&value, &attribute_name, &attribute)) ==
         CallScanner::Pair) {
    attribute_count++;
    Set_Counted_Variable(&attribute_names, attribute_count, attribute_name);
    Set_Counted_Variable(&attribute_values, attribute_count, attribute);
    if (attribute_count % kVariables == 0 && RunLimit::Over()) break;
  }
  SetNumber(&object_count, attribute_count);
  return result == CallScanner::Failed ? Fail() : Found;
}

// The elements are emptied before their array is, because the script may have references to them.
void Call::ClearAttributeVariables() {
  const String empty("", 0);
  RunWatch watch(kVariables);
  for (int i = 1; i <= attribute_count && !watch.Over(); i++) {
    Set_Counted_Variable(&attribute_names, i, empty);
    Set_Counted_Variable(&attribute_values, i, empty);
  }
  Set(&attribute_names.bare, empty);
  Set(&attribute_values.bare, empty);
  attribute_count = 0;
}

// --- Variables -----------------------------------------------------------------------------------

Variable* Call::At(ResultName* result) {
  if (result->position < 0) {
    result->position = variables->Seek(-1, result->text, result->length, nullptr);
    if (result->position < 0) result->position = variables->Insert(result->text, result->length);
  }
  return variables->At(result->position, 1);
}

void Call::Set(ResultName* result, const String& text) {
  if (Variable* variable = At(result)) variable->SetValue(Bytes(text), text.length);
}

void Call::SetNumber(ResultName* result, int number) {
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  if (Variable* variable = At(result)) {
    variable->SetValue(digits, static_cast<int>(end - digits));
  }
}

void Call::Set_Counted_Variable(CountedName* counted, int number, const String& text) {
  const auto index = static_cast<size_t>(number) - 1;
  if (index >= counted->numbered.size()) counted->numbered.resize(index + 1, -1);
  char numbered[64];
  memcpy(numbered, counted->bare.text, static_cast<size_t>(counted->bare.length));
  const auto end =
      std::to_chars(numbered + counted->bare.length, numbered + sizeof numbered, number).ptr;
  ResultName scalar{numbered, static_cast<int>(end - numbered), counted->numbered[index]};
  Set(&scalar, text);
  counted->numbered[index] = scalar.position;
  Variable* const array = At(&counted->bare);
  Variable* const element = array ? array->At(number, 1) : nullptr;
  if (element) element->SetValue(Bytes(text), text.length);
}
