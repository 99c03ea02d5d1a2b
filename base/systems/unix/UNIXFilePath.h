// A path split into its elements, in place. The lexical half of the confinement of script paths:
// what a path means as text, before any directory is opened.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXFILEPATH_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXFILEPATH_H

// Owns its text. Elements count from 0; element 0 of an absolute path is the root. Element, Span
// and the Collapsed_ operations hand out pointers into the text and put NULs between elements, so
// that a directory and a file name of one path can be used side by side; they stay valid until
// another Element or Span covers the same bytes. One thread at a time.
class UNIXFilePath {
 public:
  // A null path counts as empty.
  explicit UNIXFilePath(const char* path);
  // With copy false adopts the buffer, which was made with new[].
  UNIXFilePath(char* path, bool copy);
  // The two with a slash between them.
  UNIXFilePath(const char* first, const char* second);
  // Starts from the collapsed form.
  UNIXFilePath(const UNIXFilePath& other);
  virtual ~UNIXFilePath();
  UNIXFilePath& operator=(const UNIXFilePath&) = delete;

  // Finds the elements. Runs of slashes count as one, and slashes at the end vanish. The
  // constructors have done so.
  void Parse();

  // NUL-terminated, in place; null out of range. A shared "/" for the root.
  const char* Element(int i);
  // Elements first to last with the slashes between them, in place; null for bad arguments.
  const char* Span(int first, int last);

  // Decides which elements are kept: drops ".", and ".." together with the element before it.
  // Purely textual; "..", where nothing is left to drop, stays in a relative path.
  void Collapse() const;
  // The kept elements in a buffer made with new[], the caller's; "." or "/" when none are. The out
  // parameters may be null; *length is without the NUL, *allocated the size of the buffer.
  [[nodiscard]] char* Collapsed_Path(int* length, int* allocated) const;
  // What a file operation works in and on: the kept elements but the last, and the last one. A
  // path that ends in ".." has all of them as its directory, and "." as its name.
  const char* Collapsed_Directory();
  const char* Collapsed_Filename();

  // Whether the other path is this one or lies below it, by text and with regard to case.
  bool Contains(const UNIXFilePath& other) const;
  // Whether both have the same kept elements, the last `skip` of them aside.
  bool Matches(const UNIXFilePath& other, int skip) const;

  // Restores the text and hands its buffer to the caller, who frees it with delete[].
  [[nodiscard]] char* Release();

  int elements() const { return element_count; }
  bool is_absolute() const { return absolute != 0; }
  // The text as it was given, but for slashes at its end. Only before Element, Span,
  // Collapsed_Directory or Collapsed_Filename was called.
  const char* value() const { return text; }
  // Whether the first kept element is "..": only such a relative path can leave its base.
  bool StartsAboveBase() const;

 private:
  // Paths of more elements than this are rare enough to pay for an allocation.
  static constexpr int inline_elements = 16;

  void FreeArrays();
  int ElementLength(int i) const;
  bool IsDot(int i) const;
  bool IsDotDot(int i) const;
  bool SameElement(int i, const UNIXFilePath& other, int j) const;
  void RestoreSlashes(int from, int to);
  void Compact(int directories);

  char* text;
  int length = 0;
  int element_count = 0;
  int* offsets = nullptr;
  unsigned char absolute = 0;
  mutable int collapsed_count = 0;
  mutable int* collapsed = nullptr;
  mutable int inline_collapsed[inline_elements];
  int inline_offsets[inline_elements];
};

#endif
