// Reads forms with files: a state machine over the bytes of the body. Tested in
// tests/base/request/MultipartFormParserTest.cpp and UploadTest.cpp, measured in
// bench/FormBench.cpp.

#include "base/request/MultipartFormParser.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "base/compiled/VariableHash.h"
#include "base/core/RunLimit.h"
#include "base/core/ascii.h"
#include "base/core/memcmpi.h"
#include "base/host/File.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"

namespace {

const char kTooMany[] = "Maximum number of POST variables exceeded";

bool Equals(const GrowingBuffer& text, const char* other) {
  return strlen(other) == static_cast<size_t>(text.used()) &&
         memcmp(text.data(), other, strlen(other)) == 0;
}

// The position after the next ";", or the end.
const char* BehindSemicolon(const char* p) {
  p += strcspn(p, ";");
  return *p ? p + 1 : p;
}

// The position after a quoted value, or the end. p is after its first quote.
const char* BehindQuotes(const char* p) {
  while (*p && *p != '"') p += *p == '\\' && p[1] ? 2 : 1;
  return *p ? p + 1 : p;
}

}  // namespace

MultipartFormParser::MultipartFormParser(ZephVM* vm, FileManager* files, VariableHash* target,
                                         const char* contenttype, int limit)
    : HTTPContentParser(target), vm(vm), files(files), limit(limit) {
  if (ExtractBoundary(contenttype)) {
    // The first boundary has no end of line before it, so the CR LF counts as matched.
    matched = 2;
  } else {
    boundary.Clear();
    boundary.Append("\r\n", 2);
    state = LearningBoundary;
  }
}

MultipartFormParser::~MultipartFormParser() = default;

// --- The boundary --------------------------------------------------------------------------------

const char* MultipartFormParser::GetQuotedBoundary(const char* p) {
  for (; *p && *p != '"'; p++) {
    if (*p == '\\' && p[1]) p++;
    boundary.Append(*p);
  }
  return *p ? p + 1 : p;
}

bool MultipartFormParser::ExtractBoundary(const char* contenttype) {
  static const char kName[] = "boundary";
  const size_t name_length = sizeof kName - 1;
  bool found = false;
  const char* p = BehindSemicolon(contenttype);
  for (;;) {
    while (zp_isspace(static_cast<unsigned char>(*p))) p++;
    const char* equals = strchr(p, '=');
    if (!equals) return found;
    const bool wanted =
        equals - p == static_cast<long>(name_length) && memcmpi(p, kName, name_length) == 0;
    p = equals + 1;
    if (wanted) {
      found = true;
      boundary.Clear();
      boundary.Append("\r\n--", 4);
      if (*p != '"') {
        boundary.Append(p, static_cast<int>(strcspn(p, ";")));
        return true;
      }
      p = GetQuotedBoundary(p + 1);
    } else if (*p == '"') {
      p = BehindQuotes(p + 1);
    }
    p = BehindSemicolon(p);
  }
}

// --- The machine ---------------------------------------------------------------------------------

bool MultipartFormParser::Parse(const char* data, int length) {
  if (length <= 0) return state != Failed;
  Block block = {data, data + length, state == Body ? data : nullptr};
  while (block.next < block.end && state < EndOfForm) {
    if (state <= BoundaryLost) {
      ReadPreamble(&block);
    } else if (state <= BlankLineFeed) {
      ReadHeader(&block);
    } else {
      ReadBody(&block);
    }
  }
  if (state == Failed) return false;
  EndBlock(&block);
  return true;
}

// A failure here is reported by the next call of Parse.
void MultipartFormParser::EndBlock(Block* block) {
  if (state == Body) {
    WriteBody(block, block->end);
  } else if (state == Boundary) {
    state = ContinuedBoundary;
    WriteBody(block, block->end - matched);
  }
}

bool MultipartFormParser::Finalize() {
  return true;
}

void MultipartFormParser::Fail(const char* text) {
  Error(text);
  state = Failed;
}

void MultipartFormParser::FailAt(char c, const char* text) {
  String message("Found ", -1);
  message.cat(&c, 1);
  message.cat(text, -1);
  Error(message);
  state = Failed;
}

void MultipartFormParser::Expect(char c, char wanted, State next, const char* complaint) {
  if (c == wanted) {
    state = next;
  } else {
    FailAt(c, complaint);
  }
}

void MultipartFormParser::ReadPreamble(Block* block) {
  switch (state) {
    case FirstBoundary:
      if (matched == boundary.used()) {
        state = BehindFirstBoundary;
      } else if (*block->next == boundary.data()[matched]) {
        matched++;
        block->next++;
      } else {
        state = BoundaryLost;
      }
      break;
    case LearningBoundary: LearnBoundary(block); break;
    case BehindFirstBoundary:
      if (*block->next == '\r') {
        state = LineFeed;
        block->next++;
      } else {
        state = BoundaryLost;
      }
      break;
    default:
      if (*block->next++ == '\r') Fail("Failed to find boundary separator");
  }
}

void MultipartFormParser::LearnBoundary(Block* block) {
  const auto left = static_cast<size_t>(block->end - block->next);
  const auto* found = static_cast<const char*>(memchr(block->next, '\r', left));
  const char* end = found ? found : block->end;
  boundary.Append(block->next, static_cast<int>(end - block->next));
  block->next = found ? found + 1 : end;
  if (found) state = LineFeed;
}

// --- The header of a part ------------------------------------------------------------------------

void MultipartFormParser::ReadHeader(Block* block) {
  const char c = *block->next++;
  switch (state) {
    case LineFeed: Expect(c, '\n', HeaderLine, " when expected LF"); break;
    case BlankLineFeed: Expect(c, '\n', BodyStart, " when expected LF"); break;
    case HeaderLine:
      if (c == ':') {
        FailAt(c, " when expecting file header type");
      } else if (c == '\r') {
        state = BlankLineFeed;
      } else {
        header_name.Clear();
        header_name.Append(c);
        state = HeaderName;
      }
      break;
    case HeaderName:
      if (c == ':') {
        EndHeaderName();
      } else if (c == '\r') {
        Fail("Premature end of line when expecting file header type");
      } else {
        header_name.Append(c);
      }
      break;
    case ContentType:
      if (c == '\r') {
        state = LineFeed;
      } else if (c != ' ') {
        content_type.Append(c);
      }
      break;
    default: ReadAttribute(c);
  }
}

// After any other name the state stays HeaderName: the value is read like a name until the end of
// the line, where the body fails.
void MultipartFormParser::EndHeaderName() {
  if (Equals(header_name, "Content-Type")) {
    content_type.Clear();
    has_content_type = true;
    state = ContentType;
  } else if (Equals(header_name, "Content-Disposition")) {
    file_name.reset();
    state = Disposition;
  }
}

void MultipartFormParser::ReadAttribute(char c) {
  switch (state) {
    case Disposition:
      if (c == ';') state = AttributeStart;
      break;
    case AttributeStart:
      if (c == ' ') break;
      attribute_name.Clear();
      attribute_name.Append(c);
      state = AttributeName;
      break;
    case AttributeName:
      if (c == '=') {
        attribute_value.Clear();
        state = AttributeValue;
      } else {
        attribute_name.Append(c);
      }
      break;
    default:
      if (c != '\r' && c != ';') {
        attribute_value.Append(c);
        break;
      }
      EndAttribute();
      state = c == ';' ? AttributeStart : LineFeed;
  }
}

void MultipartFormParser::EndAttribute() {
  const char* value = attribute_value.data();
  const int length = attribute_value.used();
  // Browsers send two quotes with nothing in them if no file was chosen.
  if (Equals(attribute_name, "filename") && length >= 3) {
    file_name.reset(new char[static_cast<size_t>(length)]);
    memcpy(file_name.get(), value, static_cast<size_t>(length));
    file_name_length = length;
  } else if (Equals(attribute_name, "name")) {
    field_name.assign(length < 2 ? "" : value + 1, std::max(length - 2, 0));
  }
}

// --- The body of a part --------------------------------------------------------------------------

void MultipartFormParser::ReadBody(Block* block) {
  switch (state) {
    case BodyStart: StartBody(block); break;
    case Body: {
      const auto left = static_cast<size_t>(block->end - block->next);
      const void* found = memchr(block->next, boundary.data()[0], left);
      block->next = found ? static_cast<const char*>(found) + 1 : block->end;
      if (!found) break;
      matched = 1;
      state = Boundary;
      break;
    }
    case Boundary: MatchBoundary(block); break;
    case ContinuedBoundary: MatchContinuedBoundary(block); break;
    case BoundaryComplete: CompleteBoundary(block); break;
    default: Expect(*block->next++, '-', EndOfForm, " when expected '-'");
  }
}

void MultipartFormParser::StartBody(Block* block) {
  if (!Form_Fragment_Start()) {
    state = Failed;
    return;
  }
  block->body = block->next;
  state = Body;
}

// False if the next byte is not the next one of the boundary.
bool MultipartFormParser::MatchBoundaryByte(Block* block) {
  if (matched == boundary.used()) {
    state = BoundaryComplete;
  } else if (*block->next == boundary.data()[matched]) {
    matched++;
    block->next++;
  } else {
    return false;
  }
  return true;
}

void MultipartFormParser::MatchBoundary(Block* block) {
  if (!MatchBoundaryByte(block)) state = Body;
}

// If bytes of an earlier block looked like a boundary and are none, they belong to the part.
void MultipartFormParser::MatchContinuedBoundary(Block* block) {
  if (MatchBoundaryByte(block)) return;
  if (Form_Fragment_Write(boundary.data(), matched)) {
    block->body = block->next;
    state = Body;
  } else {
    state = Failed;
  }
}

void MultipartFormParser::CompleteBoundary(Block* block) {
  if (block->body) WriteBody(block, block->next - matched);
  if (state != Failed && !Form_Fragment_End()) state = Failed;
  if (state == Failed) return;
  const char c = *block->next++;
  if (c == '-') {
    state = SecondDash;
  } else {
    Expect(c, '\r', LineFeed, " when expected CR or '-'");
  }
}

void MultipartFormParser::WriteBody(Block* block, const char* end) {
  const char* from = block->body;
  block->body = nullptr;
  if (end > from && !Form_Fragment_Write(from, static_cast<int>(end - from))) state = Failed;
}

// --- Parts ---------------------------------------------------------------------------------------

bool MultipartFormParser::Form_Fragment_Start() {
  return !is_file() || StartUpload();
}

bool MultipartFormParser::Form_Fragment_Write(const char* data, int length) {
  if (is_file()) return WriteUpload(data, length);
  field_value.Append(data, length);
  return true;
}

bool MultipartFormParser::Form_Fragment_End() {
  return is_file() ? EndUpload() : StoreField();
}

bool MultipartFormParser::StoreField() {
  // Names with the same hash are searched one after the other, so even few fields may take long.
  if (RunLimit::Over()) {
    Error("Timeout processing POST data");
    return false;
  }
  if (limit != 0 && variable_count >= limit) {
    variable_count++;
    Error(kTooMany);
    return false;
  }
  variable_count++;
  target->SetVariable_Fancy(field_name.data ? field_name.data : "", field_name.length,
                            field_value.data(), field_value.used(), 1);
  field_value.Clear();
  return true;
}

bool MultipartFormParser::StartUpload() {
  ZephApplication* application = vm->Application();
  // The script's code runs next, with its own time limit.
  application->ResetGlobalTimeout();
  if (vm->ValidateFileUpload(field_name.data ? field_name.data : "", field_name.length,
                             file_name.get() + 1, file_name_length - 2,
                             has_content_type ? content_type.data() : nullptr, content_type.used(),
                             &upload_limit) < 1) {
    OwnError("Failed call to ValidateFileUpload");
    return false;
  }
  if (upload_limit < 0) {
    upload_mode = Skipped;
    upload_status = "SKIPPED";
    return true;
  }
  // The transfer of a file has no time limit.
  application->ClearPOSTTimeout();
  upload_status = "COMPLETE";
  char* path = nullptr;
  temporary_file.reset(files->MakeTemporary(ZephPath_Data, "", "ZEPH_FUP", &path, FileMode_Write));
  if (!temporary_file) {
    temporary_path.assign("", 0);
    OwnError("Failed to create temporary file");
    return false;
  }
  temporary_path.assign_nocopy(path, -1, static_cast<int>(strlen(path)) + 1);
  upload_mode = Writing;
  received = 0;
  return true;
}

// The limit is checked per block, and the block counts twice. If the limit is exceeded that way,
// only upload_limit - received bytes of the block are stored, where received includes the block;
// that may be none. The rest of the file is dropped.
bool MultipartFormParser::WriteUpload(const char* data, int length) {
  received += length;
  if (upload_mode != Writing) return true;
  long stored = length;
  if (upload_limit > 0 && received + length > upload_limit) {
    upload_mode = CutOff;
    upload_status = "PARTIAL";
    stored = std::min<long>(upload_limit - received, length);
  }
  while (stored > 0) {
    const int written = temporary_file->Write(data, static_cast<int>(stored));
    if (written <= 0) {
      OwnError(temporary_file->error());
      return false;
    }
    data += written;
    stored -= written;
  }
  return true;
}

// The temporary file is deleted in any case: a script that needs the file moves or copies it in its
// function.
bool MultipartFormParser::EndUpload() {
  if (upload_mode == Skipped) return true;
  temporary_file.reset();
  ZephApplication* application = vm->Application();
  application->ResetGlobalTimeout();
  const int processed = vm->ProcessFileUpload(
      field_name.data ? field_name.data : "", field_name.length, file_name.get() + 1,
      file_name_length - 2, upload_status, static_cast<int>(strlen(upload_status)),
      temporary_path.data, temporary_path.length, has_content_type ? content_type.data() : nullptr,
      content_type.used(), static_cast<int>(std::min<long>(received, INT_MAX)));
  files->Delete(ZephPath_Data, temporary_path.data);
  if (!processed) {
    OwnError("Failed call to ProcessFileUpload");
    return false;
  }
  application->ResetPOSTTimeout();
  return true;
}
