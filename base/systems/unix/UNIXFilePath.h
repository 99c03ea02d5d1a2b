// A path split into its elements, in place. The textual half of the confinement of script paths:
// what a path means as text, before any directory is opened.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXFILEPATH_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXFILEPATH_H

// Owns its text. Elements count from 0; element 0 of an absolute path is the root. Element, Span
// and the Collapsed_ operations return pointers into the text and put NULs between elements, so
// that a directory and a file name of one path can be used at the same time. The pointers stay
// valid until another Element or Span covers the same bytes. Used by one thread at a time.
class UNIXFilePath {
 public:
  // A null path counts as empty.
  explicit UNIXFilePath(const char* path);
  // With copy false adopts the buffer. REQUIRES: it was made with new[].
  UNIXFilePath(char* path, bool copy);
  // Joins the two with a slash between them.
  UNIXFilePath(const char* first, const char* second);
  // Starts from the collapsed form of the other path.
  UNIXFilePath(const UNIXFilePath& other);
  virtual ~UNIXFilePath();
  UNIXFilePath& operator=(const UNIXFilePath&) = delete;

  // Finds the elements. Runs of slashes count as one, and slashes at the end are cut off. The
  // constructors call it.
  void Parse();

  // Element i, NUL-terminated, in place; null out of range. The root is a shared "/".
  const char* Element(int i);
  // Elements first to last with the slashes between them, in place; null for bad arguments.
  const char* Span(int first, int last);

  // Decides which elements are kept: drops ".", and ".." together with the element before it. Uses
  // only the text. In a relative path a ".." with no element left to drop stays.
  void Collapse() const;
  // Returns the kept elements in a buffer made with new[], which the caller owns; "." or "/" when
  // there are none. The out-parameters may be null; *result_length is without the NUL, *allocated
  // is the size of the buffer.
  [[nodiscard]] char* Collapsed_Path(int* result_length, int* allocated) const;
  // The directory and the name that a file operation uses: all kept elements but the last, and the
  // last one. A path that ends in ".." has all of them as its directory, and "." as its name.
  const char* Collapsed_Directory();
  const char* Collapsed_Filename();

  // True if the other path is this one or is below it, by text and case-sensitive.
  bool Contains(const UNIXFilePath& other) const;
  // True if both have the same kept elements, not counting the last `skip` of them.
  bool Matches(const UNIXFilePath& other, int skip) const;

  // Restores the text and hands its buffer to the caller, who frees it with delete[].
  [[nodiscard]] char* Release();

  int elements() const { return element_count; }
  bool is_absolute() const { return absolute != 0; }
  // The text as it was given, without slashes at its end. REQUIRES: Element, Span,
  // Collapsed_Directory and Collapsed_Filename were not called.
  const char* value() const { return text; }
  // True if the first kept element is "..": only such a relative path can leave its base.
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
