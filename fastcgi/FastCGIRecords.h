// The gate between a connection and libfcgi: what a peer sends passes it record by record, and
// libfcgi sees only what it reads without harm.
//
// libfcgi trusts its peer in places where a process that serves others must not. It allocates what
// a parameter announces before a byte of it has come, and asserts that there is that much; it
// writes the answer to a question for its limits into 64 bytes, however often the question is
// repeated, and does not answer before it has a byte after the question; and it loses its place
// after padding at the end of a stream, after an empty record of another request, and after the
// content of a management record that it does not know.

#ifndef ZEPH_FASTCGI_FASTCGIRECORDS_H
#define ZEPH_FASTCGI_FASTCGIRECORDS_H

// The lengths of name-value pairs, in a stream of bytes that may be cut anywhere.
class FastCGIPairs {
 public:
  // Forgets everything. A pair may announce no more bytes than largest; all pairs together, each
  // with what it costs to keep, no more than total; and there may be no more than most_long pairs
  // whose names have kLongName bytes or more.
  void Start(int largest, int total, int most_long);
  // Whether the limits hold with these bytes as well.
  [[nodiscard]] bool Add(const unsigned char* bytes, int length);

  // The shortest name of a limit that libfcgi tells when it is asked.
  static constexpr unsigned kLongName = 13;

 private:
  bool AddLength(unsigned char byte);
  bool AddPair();

  unsigned lengths[2];  // of the name and the value, as far as they are known
  int field;            // which of them comes
  int bytes_left;       // that the length in hand still lacks; -1 before its first byte
  unsigned skip;        // bytes of the pair's texts that are still to come
  unsigned largest_pair;
  unsigned left;  // of the total
  int long_names_left;
};

// One connection. Records pass without their padding, but a question for limits with a byte of it;
// records of other requests and the contents of unknown management records are dropped. At the end
// of a request's input it stops, so that what a peer has sent ahead is there when libfcgi begins to
// read the next request.
class FastCGIRecords {
 public:
  // What the parameters of a request may announce together, with kPairCost for each.
  static constexpr int kMostParameterBytes = 32 << 20;
  // What libfcgi needs beside the texts of a parameter, rounded up.
  static constexpr int kPairCost = 64;
  // Room that Pass needs at least.
  static constexpr int kLeastRoom = 9;

  // A new connection.
  void Start();

  // Takes bytes from *from on, at most up to end, and moves *from after what was taken. What passes
  // is written to `to`, which has room for that many bytes, at least kLeastRoom. Returns the count
  // that has passed, which may be 0; -1 when the connection has to be given up, for good, and what
  // came before has passed.
  [[nodiscard]] int Pass(const unsigned char** from, const unsigned char* end, unsigned char* to,
                         int room);
  // Whether the next Pass returns -1.
  bool Refused() const { return refused; }

 private:
  enum class Phase { BetweenRequests, Parameters, Input };
  enum class Content { Pass, Parameters, Question, Drop };

  bool TakeHeader(const unsigned char** from, const unsigned char* end, unsigned char* to,
                  int* passed);
  bool TakeContent(const unsigned char** from, const unsigned char* end, unsigned char* to,
                   int* passed, int room);
  bool BeginRecord();
  bool BeginManagementRecord();
  bool BeginRequest(int id);
  bool BeginStreamRecord(int type);

  Phase phase;
  int request_id;
  unsigned char header[8];
  int header_length;  // bytes of the header that have come
  bool header_passes;
  bool refused;
  bool ends_request;
  int content_left;
  int padding_left;
  Content content;
  FastCGIPairs parameters;
  FastCGIPairs question;
};

#endif
