// Forms with files, "multipart/form-data": parts with header lines, between boundaries. Plain parts
// become variables; a file goes into a temporary file and to two functions of the script, which
// says whether it wants it and takes it over (ZephVM::ValidateFileUpload, ProcessFileUpload).

#ifndef ZEPH_BASE_MULTIPARTFORMPARSER_H
#define ZEPH_BASE_MULTIPARTFORMPARSER_H

#include <memory>

#include "base/core/GrowingBuffer.h"
#include "base/request/HTTPContentParser.h"

class File;
class FileManager;
class ZephVM;

// Runs script functions on the machine of the request, before the script itself runs, so it stands
// on the request's thread; machine and manager are borrowed.
//
// Strict where browsers agree: a part has no header lines but "Content-Type" and
// "Content-Disposition", in this spelling, a ";" ends an attribute even in quotes, and behind a
// boundary nothing but its end of line may stand. Lax where clients differ: without a boundary in
// the type of the content the first line of the body is it, and a body may end anywhere.
class MultipartFormParser : public HTTPContentParser {
 public:
  // contenttype is the header field's value, NUL-terminated. At most limit plain fields are stored;
  // 0 is no limit, a negative one admits none.
  MultipartFormParser(ZephVM* vm, FileManager* files, VariableHash* target, const char* contenttype,
                      int limit);
  // Closes a file that has not ended; it stays where it is.
  ~MultipartFormParser() override;

  bool Parse(const char* data, int length) override;
  // Always true: a body may be cut off. What has not ended by then gets no variable and no call.
  bool Finalize() override;

  // The three below are called for each part: once at its first byte, for each run of bytes, and
  // once behind its boundary. False fails the body, with the reason in error().
  virtual bool Form_Fragment_Start();
  virtual bool Form_Fragment_Write(const char* data, int length);
  virtual bool Form_Fragment_End();

 protected:
  // Each names what the next byte is expected to be, or what it is part of.
  //
  //   FirstBoundary, LearningBoundary    start; the latter without a boundary from the header
  //   BehindFirstBoundary, BoundaryLost  one that is not followed by an end of line is none
  //   LineFeed, HeaderLine .. AttributeValue, BlankLineFeed     the header of a part
  //   BodyStart, Body                    the part itself
  //   Boundary, ContinuedBoundary        a boundary, maybe: one that began in this block, one that
  //                                      began in an earlier one
  //   BoundaryComplete, SecondDash       the byte behind it says what comes
  //   EndOfForm, Failed                  nothing is read any more
  enum State : int {
    FirstBoundary = 0,
    LearningBoundary = 1,
    BehindFirstBoundary = 2,
    BoundaryLost = 3,
    LineFeed = 4,
    HeaderLine = 5,
    HeaderName = 6,
    ContentType = 7,
    Disposition = 8,
    AttributeStart = 9,
    AttributeName = 10,
    AttributeValue = 11,
    BlankLineFeed = 12,
    BodyStart = 13,
    Body = 14,
    Boundary = 15,
    ContinuedBoundary = 16,
    BoundaryComplete = 17,
    SecondDash = 18,
    EndOfForm = 19,
    Failed = 20,
  };
  enum UploadMode : int { Writing = 0, CutOff = 1, Skipped = 2 };

  // The block that is being read.
  struct Block {
    const char* next;
    const char* end;
    const char* body;  // where bytes of the part begin that are not handed on yet; null if nowhere
  };

  // Finds the boundary in the header field's value. False if there is none.
  bool ExtractBoundary(const char* contenttype);
  // Reads a quoted value from behind its first quote; answers where it has ended.
  const char* GetQuotedBoundary(const char* p);

  // Look at the next byte, or some, in the present state; those that leave it for the next state
  // to look at do not move on. ReadPreamble serves the states up to BoundaryLost, ReadHeader those
  // up to BlankLineFeed, and ReadBody the others.
  void ReadPreamble(Block* block);
  void LearnBoundary(Block* block);
  void ReadHeader(Block* block);
  void ReadAttribute(char c);
  void ReadBody(Block* block);
  void StartBody(Block* block);
  void MatchBoundary(Block* block);
  void MatchContinuedBoundary(Block* block);
  void CompleteBoundary(Block* block);
  void EndHeaderName();
  void EndAttribute();
  void EndBlock(Block* block);
  // Hands on the bytes of the part up to there.
  void WriteBody(Block* block, const char* end);
  void Expect(char c, char wanted, State next, const char* complaint);
  void Fail(const char* text);
  void FailAt(char c, const char* text);

  bool is_file() const { return file_name != nullptr; }
  bool StartUpload();
  bool WriteUpload(const char* data, int length);
  bool EndUpload();
  bool StoreField();

  ZephVM* vm;
  FileManager* files;
  int limit;
  int variable_count = 0;
  GrowingBuffer boundary{100};  // with the CR LF and the dashes in front of it
  GrowingBuffer attribute_name{50};
  GrowingBuffer attribute_value{50};
  GrowingBuffer header_name{50};
  GrowingBuffer content_type{25};
  bool has_content_type = false;  // a part without one has that of the part before
  int upload_limit = 0;           // of the file, in bytes; 0 is none
  int matched = 0;                // bytes of the boundary
  String field_name;
  std::unique_ptr<char[]> file_name;  // as it was sent, in its quotes; null for a plain field
  int file_name_length = 0;
  const char* upload_status = "";
  long received = 0;  // bytes of the file, stored or not
  String temporary_path;
  std::unique_ptr<File> temporary_file;
  GrowingBuffer field_value{512};
  int state = FirstBoundary;
  int upload_mode = Writing;
};

#endif
