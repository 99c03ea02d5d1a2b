// Forms with files, "multipart/form-data": parts with header lines, between boundaries. Plain parts
// become variables. A file is written to a temporary file and passed to two functions of the
// script: one says whether it accepts the file, the other takes it (ZephVM::ValidateFileUpload,
// ProcessFileUpload).

#ifndef ZEPH_BASE_MULTIPARTFORMPARSER_H
#define ZEPH_BASE_MULTIPARTFORMPARSER_H

#include <memory>

#include "base/core/GrowingBuffer.h"
#include "base/request/HTTPContentParser.h"

class File;
class FileManager;
class ZephVM;

// Runs script functions on the machine of the request, before the script itself runs. Used on the
// request's thread; machine and manager are borrowed.
//
// Strict where browsers agree: a part has no header lines except "Content-Type" and
// "Content-Disposition", in this spelling; a ";" ends an attribute even in quotes; after a boundary
// only its end of line may follow. Lax where clients differ: if the content type has no boundary,
// the first line of the body is the boundary; and a body may end anywhere.
class MultipartFormParser : public HTTPContentParser {
 public:
  // contenttype is the header field's value, NUL-terminated. At most limit plain fields are stored;
  // 0 means no limit, a negative limit admits none.
  MultipartFormParser(ZephVM* vm, FileManager* files, VariableHash* target, const char* contenttype,
                      int limit);
  // Closes a file that has not ended, and leaves it on disk.
  ~MultipartFormParser() override;

  bool Parse(const char* data, int length) override;
  // Always true, because a body may be cut off. A part that has not ended by then gets no variable
  // and no call.
  bool Finalize() override;

  // Called for each part: once at its first byte, for each run of bytes, and once after its
  // boundary. False fails the body, with the reason in error().
  virtual bool Form_Fragment_Start();
  virtual bool Form_Fragment_Write(const char* data, int length);
  virtual bool Form_Fragment_End();

 protected:
  // Each state says what the next byte should be, or what it is part of.
  //
  //   FirstBoundary, LearningBoundary    start; the latter if the header field has no boundary
  //   BehindFirstBoundary, BoundaryLost  a boundary without an end of line after it does not count
  //   LineFeed, HeaderLine .. AttributeValue, BlankLineFeed     the header of a part
  //   BodyStart, Body                    the part itself
  //   Boundary, ContinuedBoundary        possibly a boundary: it began in this block, or in an
  //                                      earlier one
  //   BoundaryComplete, SecondDash       the byte after the boundary decides what follows
  //   EndOfForm, Failed                  nothing more is read
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
    const char* body;  // first byte of the part not yet passed on; null if none
  };

  // Finds the boundary in the header field's value. Returns false if there is none.
  bool ExtractBoundary(const char* contenttype);
  // Reads a quoted value, p being after its first quote; returns the position after it.
  const char* GetQuotedBoundary(const char* p);

  // Process the next byte, or several, in the present state. A function that leaves a byte to the
  // next state does not advance. ReadPreamble handles the states up to BoundaryLost, ReadHeader
  // those up to BlankLineFeed, ReadBody the others.
  void ReadPreamble(Block* block);
  void LearnBoundary(Block* block);
  void ReadHeader(Block* block);
  void ReadAttribute(char c);
  void ReadBody(Block* block);
  void StartBody(Block* block);
  bool MatchBoundaryByte(Block* block);
  void MatchBoundary(Block* block);
  void MatchContinuedBoundary(Block* block);
  void CompleteBoundary(Block* block);
  void EndHeaderName();
  void EndAttribute();
  void EndBlock(Block* block);
  // Passes on the bytes of the part up to end.
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
  GrowingBuffer boundary{100};  // including the CR LF and the dashes before it
  GrowingBuffer attribute_name{50};
  GrowingBuffer attribute_value{50};
  GrowingBuffer header_name{50};
  GrowingBuffer content_type{25};
  bool has_content_type = false;  // a part without one has that of the previous part
  int upload_limit = 0;           // of the file, in bytes; 0 is none
  int matched = 0;                // bytes of the boundary that have matched
  String field_name;
  std::unique_ptr<char[]> file_name;  // as sent, with its quotes; null for a plain field
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
