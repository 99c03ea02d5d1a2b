// The filter between a connection and libfcgi. The peer's bytes pass it record by record, and
// libfcgi sees only records that it can read without harm.
//
// libfcgi trusts its peer too much for a process that serves others as well:
// 1. It allocates the announced length of a parameter before a byte of it has come, and asserts
//    that the allocation succeeds.
// 2. It writes its reply to a query for its limits into 64 bytes, however often a name is repeated,
//    and sends the reply only after it has read a byte past the query.
// 3. It loses its place in the stream after padding at the end of a stream, after an empty record
//    of another request, and after the content of a management record of unknown type.

#ifndef ZEPH_FASTCGI_FASTCGIRECORDS_H
#define ZEPH_FASTCGI_FASTCGIRECORDS_H

// Checks the lengths of name-value pairs in a stream of bytes that may be cut anywhere.
class FastCGIPairs {
 public:
  // Resets the object. A pair may announce at most `largest` bytes. All pairs together, each with
  // kPairCost, may announce at most `total`. At most `most_long` pairs may have a name of kLongName
  // bytes or more.
  void Start(int largest, int total, int most_long);
  // Adds the next bytes of the stream. Returns false if a limit is exceeded.
  [[nodiscard]] bool Add(const unsigned char* bytes, int length);

  // The shortest name of a limit that libfcgi reports when it is queried.
  static constexpr unsigned kLongName = 13;

 private:
  // Adds the whole pairs with short lengths from `bytes` on. Returns how many bytes they are, or -1
  // if a limit is exceeded. REQUIRES: a pair begins here.
  int AddShortPairs(const unsigned char* bytes, const unsigned char* end);
  bool AddLength(unsigned char byte);
  bool AddPair();

  unsigned lengths[2];  // of the name and the value, as far as they have come
  int field;            // which of them comes next
  int bytes_left;       // still missing from the current length; -1 before its first byte
  unsigned skip;        // bytes of the pair's texts that are still to come
  unsigned largest_pair;
  unsigned left;  // of the total
  int long_names_left;
};

// The records of one connection. They pass without their padding, except that a query for limits
// gets one byte of it. Records of other requests and the contents of unknown management records are
// dropped. Pass stops at the end of a request's input, so that the bytes that a peer has sent ahead
// are still there when libfcgi begins to read the next request.
class FastCGIRecords {
 public:
  // The bytes that the parameters of a request may announce together, kPairCost for each included.
  static constexpr int kMostParameterBytes = 32 << 20;
  // The bytes that libfcgi needs for a parameter in addition to its texts, rounded up.
  static constexpr int kPairCost = 64;
  // The least room that Pass may be called with.
  static constexpr int kLeastRoom = 9;

  // Resets the object for a new connection.
  void Start();

  // Takes bytes from *from up to `end` and moves *from past those it has taken. Writes the bytes
  // that pass to `to`, which has room for `room` bytes. Returns how many have passed, which may be
  // 0, or -1 if the connection has to be given up; every later call then returns -1 too. Bytes
  // before the fault pass first. REQUIRES: room >= kLeastRoom.
  [[nodiscard]] int Pass(const unsigned char** from, const unsigned char* end, unsigned char* to,
                         int room);
  // Whether the peer has broken the protocol or exceeded a limit: the next Pass then returns -1.
  bool Refused() const { return refused; }
  // Whether the input of the last request has ended, or no request has begun, and the bytes that
  // were taken end with a record: the peer is not about to send more, unless it begins a request.
  bool InputHasEnded() const {
    return phase == Phase::BetweenRequests && header_length == 0 && !refused;
  }

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
