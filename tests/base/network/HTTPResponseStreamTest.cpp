#include "base/network/HTTPResponseStream.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "base/core/RunLimit.h"
#include "base/core/ThreadMemory.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/HTTPResponseModel.h"
#include "tests/support/ScriptedConnection.h"

namespace {

std::string Text(const String& text) {
  return std::string(text.data ? text.data : "", static_cast<size_t>(text.length));
}

// A literal with NULs in it.
template <size_t n>
std::string Bytes(const char (&text)[n]) {
  return std::string(text, n - 1);
}

// --- The table -----------------------------------------------------------------------------------

struct Row {
  const char* label;
  std::string bytes;
  // Status, length or "?", "chunked"; each header as [name=value] without the status line; the body
  // in <>; what ends it: "end" or the text of the failure. A head that fails has no body.
  std::string expected;
};

const std::string kOK = "HTTP/1.1 200 OK\r\n";
const std::string kChunked = kOK + "Transfer-Encoding: chunked\r\n\r\n";
#define CHUNKED "200 ? chunked [Transfer-Encoding=chunked] "
#define CLOSED "Read Error: Connection closed by remote host"

const Row rows[] = {
    // Status lines.
    {"plain", kOK + "\r\nhello", "200 ? <hello> end"},
    {"no reason", "HTTP/1.1 204\r\n\r\n", "204 ? <> end"},
    {"old version", "HTTP/1.0 200 OK\r\n\r\nx", "200 ? <x> end"},
    {"another protocol", "ICY 200 OK\r\n\r\nx", "200 ? <x> end"},
    {"not found", "HTTP/1.1 404 Not Found\r\n\r\ngone", "404 ? <gone> end"},
    {"a redirect is like any other", "HTTP/1.1 302 Found\r\nLocation: /x\r\n\r\n",
     "302 ? [Location=/x] <> end"},
    {"no blank", "HTTP/1.1\r\n\r\nx", "0 ? <x> end"},
    {"two blanks", "HTTP/1.1  200 OK\r\n\r\n", "200 ? <> end"},
    {"a tab is no blank", "HTTP/1.1\t200 OK\r\n\r\n", "0 ? <> end"},
    {"blanks in front", "  HTTP/1.1 200 OK\r\n\r\n", "200 ? <> end"},
    {"only a number", "200\r\n\r\n", "0 ? <> end"},
    {"status of letters", "HTTP/1.1 abc\r\n\r\n", "0 ? <> end"},
    {"status with letters after it", "HTTP/1.1 20x\r\n\r\n", "20 ? <> end"},
    {"negative status", "HTTP/1.1 -7\r\n\r\n", "-7 ? <> end"},
    {"signed status", "HTTP/1.1 +201\r\n\r\n", "201 ? <> end"},
    {"greatest status", "HTTP/1.1 2147483647 x\r\n\r\n", "2147483647 ? <> end"},
    {"status beyond an int", "HTTP/1.1 2147483648 x\r\n\r\n", "0 ? <> end"},
    {"status beyond everything", "HTTP/1.1 99999999999999999999 x\r\n\r\n", "0 ? <> end"},
    {"empty status line", "\r\n\r\nx", "0 ? <x> end"},
    {"the status line is no header", "Content-Length: 3\r\n\r\nhello", "3 ? <hello> end"},
    {"line feeds alone", "HTTP/1.1 200 OK\nA: b\n\nhello", "200 ? [A=b] <hello> end"},
    {"mixed ends of lines", "HTTP/1.1 200 OK\nA: b\r\nC: d\n\r\nx", "200 ? [A=b][C=d] <x> end"},
    {"carriage returns do not end lines", "HTTP/1.1 200 OK\rA: b\n\nx", "200 ? <x> end"},
    {"NUL in the status line", Bytes("HTTP/1.1 200\0 400\r\n\r\nx"), "200 ? <x> end"},
    // Headers.
    {"one header", kOK + "Server: z\r\n\r\n", "200 ? [Server=z] <> end"},
    {"no blank after the colon", kOK + "A:b\r\n\r\n", "200 ? [A=b] <> end"},
    {"white space everywhere", kOK + " \tA \t:\t b c \t\r\n\r\n", "200 ? [A=b c] <> end"},
    {"colon in the value", kOK + "A: b:c\r\n\r\n", "200 ? [A=b:c] <> end"},
    {"no colon", kOK + "just words\r\n\r\n", "200 ? [just words=] <> end"},
    {"empty name", kOK + ": x\r\n\r\n", "200 ? [=x] <> end"},
    {"empty value", kOK + "A:\r\n\r\n", "200 ? [A=] <> end"},
    {"colon alone", kOK + ":\r\n\r\n", "200 ? [=] <> end"},
    {"folded lines are headers of their own", kOK + "A: b\r\n c: d\r\n\te\r\n\r\n",
     "200 ? [A=b][c=d][e=] <> end"},
    {"duplicates stay in order", kOK + "A: 1\r\nB: 2\r\nA: 3\r\n\r\n",
     "200 ? [A=1][B=2][A=3] <> end"},
    {"a line of blanks does not end the head", kOK + "  \r\nA: b\r\n\r\nx",
     "200 ? [=][A=b] <x> end"},
    {"two carriage returns do not end the head", kOK + "\r\r\nA: b\r\n\r\nx",
     "200 ? [=][A=b] <x> end"},
    {"NUL ends a header", kOK + Bytes("A: b\0c\r\n\r\n"), "200 ? [A=b] <> end"},
    {"NUL in front", kOK + Bytes("\0A: b\r\n\r\n"), "200 ? [=] <> end"},
    {"bytes above 127", kOK + "\xC3\x84: \xFF\r\n\r\n", "200 ? [\xC3\x84=\xFF] <> end"},
    {"vertical tabs are text", kOK + "A: \vb\f\r\n\r\n", "200 ? [A=\vb\f] <> end"},
    // Lengths.
    {"length", kOK + "Content-Length: 5\r\n\r\nhello", "200 5 [Content-Length=5] <hello> end"},
    {"more than the length", kOK + "Content-Length: 3\r\n\r\nhello",
     "200 3 [Content-Length=3] <hel> end"},
    {"less than the length", kOK + "Content-Length: 9\r\n\r\nhello",
     "200 9 [Content-Length=9] <hello> end"},
    {"length 0", kOK + "Content-Length: 0\r\n\r\nhello", "200 0 [Content-Length=0] <> end"},
    {"any case", kOK + "cOnTeNt-LENGTH: 2\r\n\r\nhello", "200 2 [cOnTeNt-LENGTH=2] <he> end"},
    {"blank in front of the colon", kOK + "Content-Length : 2\r\n\r\nhello",
     "200 2 [Content-Length=2] <he> end"},
    {"empty length", kOK + "Content-Length:\r\n\r\nhello", "200 0 [Content-Length=] <> end"},
    {"length of letters", kOK + "Content-Length: x\r\n\r\nhello",
     "200 0 [Content-Length=x] <> end"},
    {"length with letters after it", kOK + "Content-Length: 2x\r\n\r\nhello",
     "200 2 [Content-Length=2x] <he> end"},
    {"length list", kOK + "Content-Length: 4, 4\r\n\r\nhello",
     "200 4 [Content-Length=4, 4] <hell> end"},
    {"signed length", kOK + "Content-Length: +2\r\n\r\nhello",
     "200 2 [Content-Length=+2] <he> end"},
    {"hexadecimal length", kOK + "Content-Length: 0x5\r\n\r\nhello",
     "200 0 [Content-Length=0x5] <> end"},
    {"leading zeros", kOK + "Content-Length: 0004\r\n\r\nhello",
     "200 4 [Content-Length=0004] <hell> end"},
    {"vertical tab in front of a length", kOK + "Content-Length: \v4\r\n\r\nhello",
     "200 4 [Content-Length=\v4] <hell> end"},
    {"negative length is unknown", kOK + "Content-Length: -1\r\n\r\nhello",
     "200 ? [Content-Length=-1] <hello> end"},
    {"very negative length", kOK + "Content-Length: -99999999999999999999\r\n\r\nhello",
     "200 ? [Content-Length=-99999999999999999999] <hello> end"},
    {"greatest length", kOK + "Content-Length: 2147483647\r\n\r\nhello",
     "200 2147483647 [Content-Length=2147483647] <hello> end"},
    {"length beyond an int is unknown", kOK + "Content-Length: 2147483648\r\n\r\nhello",
     "200 ? [Content-Length=2147483648] <hello> end"},
    {"length that wraps to 1", kOK + "Content-Length: 4294967297\r\n\r\nhello",
     "200 ? [Content-Length=4294967297] <hello> end"},
    {"length beyond everything", kOK + "Content-Length: 18446744073709551617\r\n\r\nhello",
     "200 ? [Content-Length=18446744073709551617] <hello> end"},
    {"the last length counts", kOK + "Content-Length: 4\r\nContent-Length: 2\r\n\r\nhello",
     "200 2 [Content-Length=4][Content-Length=2] <he> end"},
    {"also if it is unknown", kOK + "Content-Length: 4\r\nContent-Length: -2\r\n\r\nhello",
     "200 ? [Content-Length=4][Content-Length=-2] <hello> end"},
    {"folded length is none", kOK + "Content-Length:\r\n 4\r\n\r\nhello",
     "200 0 [Content-Length=][4=] <> end"},
    // Encodings.
    {"chunks", kChunked + "5\r\nhello\r\n0\r\n\r\n", CHUNKED "<hello> end"},
    {"two chunks", kChunked + "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\nmore",
     CHUNKED "<hello world> end"},
    {"no chunks", kChunked + "0\r\n\r\n", CHUNKED "<> end"},
    {"any case of chunked", kOK + "TRANSFER-encoding: CHUNKED\r\n\r\n2\r\nhe\r\n0\r\n\r\n",
     "200 ? chunked [TRANSFER-encoding=CHUNKED] <he> end"},
    {"gzip is not chunked", kOK + "Transfer-Encoding: gzip\r\n\r\nhello",
     "200 ? [Transfer-Encoding=gzip] <hello> end"},
    {"a list is not chunked", kOK + "Transfer-Encoding: gzip, chunked\r\n\r\n2\r\nhe\r\n",
     "200 ? [Transfer-Encoding=gzip, chunked] <2\r\nhe\r\n> end"},
    {"a parameter is not chunked", kOK + "Transfer-Encoding: chunked;q=1\r\n\r\nx",
     "200 ? [Transfer-Encoding=chunked;q=1] <x> end"},
    {"an empty encoding is not chunked", kOK + "Transfer-Encoding:\r\n\r\nx",
     "200 ? [Transfer-Encoding=] <x> end"},
    {"chunks after a length",
     kOK + "Content-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nhe\r\n0\r\n\r\n",
     "200 ? chunked [Content-Length=1][Transfer-Encoding=chunked] <he> end"},
    {"chunks before a length",
     kOK + "Transfer-Encoding: chunked\r\nContent-Length: 1\r\n\r\n2\r\nhe\r\n0\r\n\r\n",
     "200 ? chunked [Transfer-Encoding=chunked][Content-Length=1] <he> end"},
    {"another encoding drops the length",
     kOK + "Content-Length: 1\r\nTransfer-Encoding: gzip\r\n\r\nhello",
     "200 ? [Content-Length=1][Transfer-Encoding=gzip] <hello> end"},
    {"a length after another encoding",
     kOK + "Transfer-Encoding: gzip\r\nContent-Length: 1\r\n\r\nhello",
     "200 1 [Transfer-Encoding=gzip][Content-Length=1] <h> end"},
    {"the last encoding counts",
     kOK + "Transfer-Encoding: chunked\r\nTransfer-Encoding: identity\r\n\r\nhello",
     "200 ? [Transfer-Encoding=chunked][Transfer-Encoding=identity] <hello> end"},
    // Chunks.
    {"extension", kChunked + "1a;name=value\r\nabcdefghijklmnopqrstuvwxyz\r\n0\r\n\r\n",
     CHUNKED "<abcdefghijklmnopqrstuvwxyz> end"},
    {"quoted extension", kChunked + "2;a=\"b c\";d\r\nhe\r\n0;e\r\n\r\n", CHUNKED "<he> end"},
    {"upper case", kChunked + "A\r\n0123456789\r\n0\r\n\r\n", CHUNKED "<0123456789> end"},
    {"size with a prefix", kChunked + "0x2\r\nhe\r\n0\r\n\r\n", CHUNKED "<he> end"},
    {"prefix alone", kChunked + "0xg\r\nhe", CHUNKED "<> end"},
    {"size with a sign", kChunked + "+2\r\nhe\r\n0\r\n\r\n", CHUNKED "<he> end"},
    {"white space around a size", kChunked + " \t2 \r\nhe\r\n0\r\n\r\n", CHUNKED "<he> end"},
    {"zeros in front of a size", kChunked + "000000000000000000002\r\nhe\r\n000\r\n\r\n",
     CHUNKED "<he> end"},
    {"lines of a size with a line feed alone", kChunked + "2\nhe\r\n0\n\r\n", CHUNKED "<he> end"},
    {"no digits is the size 0", kChunked + "hello\r\n", CHUNKED "<> end"},
    {"an empty size is 0", kChunked + "\r\nhello", CHUNKED "<> end"},
    {"NUL ends a size",
     kChunked + Bytes("2\0"
                      "2\r\nhe\r\n0\r\n\r\n"),
     CHUNKED "<he> end"},
    {"negative size", kChunked + "-1\r\nhello", CHUNKED "Invalid chunk size"},
    {"negative size later", kChunked + "2\r\nhe\r\n-5\r\nhello\r\n",
     CHUNKED "<> Invalid chunk size"},
    {"minus 0", kChunked + "-0\r\nhello", CHUNKED "<> end"},
    {"greatest size", kChunked + "7fffffff\r\nhello", CHUNKED "<hello> end"},
    {"size beyond an int", kChunked + "80000000\r\nhello", CHUNKED "Invalid chunk size"},
    {"size that wraps to 2", kChunked + "100000002\r\nhe\r\n0\r\n\r\n",
     CHUNKED "Invalid chunk size"},
    {"size beyond everything", kChunked + "ffffffffffffffffffffffff\r\nhello",
     CHUNKED "Invalid chunk size"},
    {"one beyond an int later", kChunked + "2\r\nhe\r\n80000000\r\n",
     CHUNKED "<> Invalid chunk size"},
    {"no CR LF after a chunk", kChunked + "2\r\nhello\r\n", CHUNKED "<> Invalid chunk terminator"},
    {"a line feed alone after a chunk", kChunked + "2\r\nhe\n0\r\n\r\n",
     CHUNKED "<> Invalid chunk terminator"},
    {"LF CR after a chunk", kChunked + "2\r\nhe\n\r0\r\n\r\n",
     CHUNKED "<> Invalid chunk terminator"},
    {"trailer", kChunked + "2\r\nhe\r\n0\r\nA: b\r\n\r\n", CHUNKED "<> Invalid chunk terminator"},
    {"a trailer after a body without bytes is not read", kChunked + "0\r\nA: b\r\n\r\n",
     CHUNKED "<> end"},
    {"closed within a chunk", kChunked + "5\r\nhel", CHUNKED "<hel> end"},
    {"closed after a chunk", kChunked + "5\r\nhello", CHUNKED "<> Invalid chunk terminator"},
    {"closed before the next size", kChunked + "5\r\nhello\r\n", CHUNKED "<> " CLOSED},
    {"closed within the next size", kChunked + "5\r\nhello\r\n0", CHUNKED "<> " CLOSED},
    {"closed before the last CR LF", kChunked + "5\r\nhello\r\n0\r\n",
     CHUNKED "<> Invalid chunk terminator"},
    {"closed before the first size", kChunked, CHUNKED CLOSED},
    {"closed within the first size", kChunked + "12", CHUNKED CLOSED},
    {"one chunk too early is lost", kChunked + "2\r\nhe\r\n3\r\nllo\r\n", CHUNKED "<he> " CLOSED},
    {"chunk with CR LF in it", kChunked + "4\r\n\r\n\r\n\r\n0\r\n\r\n", CHUNKED "<\r\n\r\n> end"},
    {"chunk with NULs", kChunked + Bytes("3\r\n\0a\0\r\n0\r\n\r\n"),
     CHUNKED + Bytes("<\0a\0> end")},
    // Heads without an end.
    {"nothing", "", "-1 ? " CLOSED},
    {"half a status line", "HTTP/1.1 200 OK", "-1 ? " CLOSED},
    {"only a status line", kOK, "200 ? " CLOSED},
    {"no end of the head", kOK + "A: b\r\n", "200 ? [A=b] " CLOSED},
    {"half a header", kOK + "A: b\r\nC", "200 ? [A=b] " CLOSED},
    {"half an empty line", kOK + "Content-Length: 4\r\n\r", "200 4 [Content-Length=4] " CLOSED},
    // Two responses.
    {"continue first", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n\r\n",
     "100 ? <HTTP/1.1 200 OK\r\n\r\n> end"},
};

std::string Summary(const HTTPResponseOutcome& o) {
  std::string text = std::to_string(o.status) + " " +
                     (o.length < 0 ? "?" : std::to_string(o.length)) +
                     (o.chunked ? " chunked " : " ");
  for (size_t i = 1; i < o.headers.size(); i++) {
    const std::string& header = o.headers[i];
    const size_t value = header.rfind('|');
    const size_t name = header.rfind('|', value - 1);
    text += "[" + header.substr(name + 1, value - name - 1) + "=" + header.substr(value + 1) + "]";
  }
  if (o.headers.size() > 1) text += " ";
  if (!o.head) return text + o.error;
  return text + "<" + o.body + "> " + (o.last == 0 ? "end" : o.error);
}

ScriptedPeer PeerOf(const std::string& bytes) {
  ScriptedPeer peer;
  peer.bytes = bytes;
  return peer;
}

void ExpectAsModel(const ScriptedPeer& script, size_t piece) {
  ScriptedPeer peer = script;
  const HTTPResponseOutcome expected = HTTPResponseModel(script).Run(piece);
  const HTTPResponseOutcome found = ReadWithStream(peer, piece);
  EXPECT_EQ(found.Text(), expected.Text());
  EXPECT_EQ(peer.deleted, 1);
  for (int wait : peer.waits) EXPECT_EQ(wait, 7);
  for (int room : peer.buffers) EXPECT_EQ(room, 512);
}

TEST(HTTPResponseStream, ReadsTheTable) {
  EXPECT_GE(std::size(rows), 80u);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    ScriptedPeer peer = PeerOf(row.bytes);
    const HTTPResponseOutcome found = ReadWithStream(peer, 1000);
    EXPECT_EQ(Summary(found), row.expected);
    EXPECT_EQ(Summary(HTTPResponseModel(PeerOf(row.bytes)).Run(1000)), Summary(found));
  }
}

TEST(HTTPResponseStream, ReadsTheTableCutAtEveryByteAsTheModelDoes) {
  for (const Row& row : rows) {
    for (size_t length = 0; length <= row.bytes.size(); length++) {
      SCOPED_TRACE(row.label + (" of " + std::to_string(length)));
      ScriptedPeer peer = PeerOf(row.bytes.substr(0, length));
      ExpectAsModel(peer, 1000);
      ExpectAsModel(peer, 1);
      peer.stays = true;
      ExpectAsModel(peer, 3);
    }
  }
}

TEST(HTTPResponseStream, ReadsTheTableInTwoPiecesAsTheModelDoes) {
  for (const Row& row : rows) {
    for (size_t cut = 1; cut < row.bytes.size(); cut++) {
      SCOPED_TRACE(row.label + (" cut at " + std::to_string(cut)));
      ScriptedPeer peer = PeerOf(row.bytes);
      peer.cuts = {cut};
      ExpectAsModel(peer, 1000);
    }
  }
}

// Changed, shortened, doubled and glued rows, in random pieces.
TEST(HTTPResponseStream, ReadsRandomResponsesAsTheModelDoes) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const std::string alphabet = "0123456789abcdefxA:;- \r\n\t" + std::string(1, '\0');
  auto row = [&]() -> const std::string& { return rows[random() % std::size(rows)].bytes; };
  for (int i = 0; i < 5000 && !testing::Test::HasFailure(); i++) {
    std::string bytes = row();
    if (random() % 4 == 0) bytes = bytes.substr(0, random() % (bytes.size() + 1)) + row();
    for (unsigned n = random() % 4; n > 0 && !bytes.empty(); n--) {
      const size_t at = random() % bytes.size();
      const char c = alphabet[random() % alphabet.size()];
      switch (random() % 3) {
        case 0: bytes[at] = c; break;
        case 1: bytes.insert(at, 1, c); break;
        default: bytes.erase(at, 1); break;
      }
    }
    ScriptedPeer peer = PeerOf(bytes);
    peer.stays = random() % 2;
    for (unsigned n = random() % 6; n > 0; n--) peer.cuts.insert(random() % (bytes.size() + 1));
    ExpectAsModel(peer, 1 + random() % 40);
  }
}

// --- Heads ---------------------------------------------------------------------------------------

TEST(HTTPResponseStream, KnowsNothingBeforeAHeadIsRead) {
  ScriptedPeer peer;
  HTTPResponseStream stream(new ScriptedConnection(&peer), 3);
  EXPECT_EQ(stream.status, -1);
  EXPECT_EQ(stream.content_length, -1);
  EXPECT_EQ(stream.chunked, 0);
  EXPECT_EQ(stream.total, 0);
  EXPECT_EQ(stream.headers.Entries(), 0);
  EXPECT_EQ(stream.timeout, 3);
  EXPECT_TRUE(peer.waits.empty());
  stream.Close();
}

TEST(HTTPResponseStream, TheStatusLineIsTheFirstHeader) {
  ScriptedPeer peer = PeerOf(" HTTP/1.1 500 Fault: a: b \r\nC: d\r\n\r\n");
  HTTPResponseStream stream(new ScriptedConnection(&peer), 3);
  ASSERT_TRUE(stream.Read_Headers());
  EXPECT_EQ(stream.headers.Entries(), 2);
  const HTTPResponseStream_Header* first = stream.headers.First();
  EXPECT_EQ(Text(first->text), "HTTP/1.1 500 Fault: a: b");
  EXPECT_EQ(Text(first->name), "HTTP/1.1 500 Fault");
  EXPECT_EQ(Text(first->value), "a: b");
  EXPECT_EQ(Text(stream.headers.Next()->text), "C: d");
  stream.Close();
}

TEST(HTTPResponseStream, AHeaderKeepsItsLineAsItIs) {
  const HTTPResponseStream_Header header(String(" A : b \r\n"));
  EXPECT_EQ(Text(header.text), " A : b \r\n");
  EXPECT_EQ(Text(header.name), "A");
  EXPECT_EQ(Text(header.value), "b");
}

TEST(HTTPResponseStream, ANextHeadDropsAllOfTheOneBefore) {
  ScriptedPeer peer = PeerOf("HTTP/1.1 100 Continue\r\nContent-Length: 2\r\nA: b\r\n\r\nhe" +
                             kChunked + "3\r\nabc\r\n0\r\n\r\nHTTP/1.1 204 None\r\n\r\n");
  HTTPResponseStream stream(new ScriptedConnection(&peer), 3);
  char buffer[10];
  ASSERT_TRUE(stream.Read_Headers());
  EXPECT_EQ(stream.status, 100);
  EXPECT_EQ(stream.Read(buffer, 10), 2);
  ASSERT_TRUE(stream.Read_Headers());
  EXPECT_EQ(stream.status, 200);
  EXPECT_EQ(stream.content_length, -1);
  EXPECT_EQ(stream.chunked, 1);
  EXPECT_EQ(stream.total, 0);
  EXPECT_EQ(stream.headers.Entries(), 2);
  EXPECT_EQ(stream.Read(buffer, 10), 3);
  EXPECT_EQ(stream.Read(buffer, 10), 0);
  ASSERT_TRUE(stream.Read_Headers());
  EXPECT_EQ(stream.status, 204);
  EXPECT_EQ(stream.chunked, 0);
  EXPECT_EQ(stream.chunk_size, 0);
  EXPECT_EQ(stream.chunk_position, 0);
  EXPECT_FALSE(stream.Read_Headers());
  EXPECT_EQ(stream.status, -1);
  EXPECT_EQ(stream.headers.Entries(), 0);
  EXPECT_EQ(Text(stream.error), kReadClosed);
  stream.Close();
}

TEST(HTTPResponseStream, TakesALineOfAnyLength) {
  const std::string value(100000, 'v');
  ScriptedPeer peer = PeerOf(kOK + "A: " + value + "\r\n\r\n");
  HTTPResponseStream stream(new ScriptedConnection(&peer), 3);
  ASSERT_TRUE(stream.Read_Headers());
  EXPECT_EQ(Text(stream.headers.Last()->value), value);
  stream.Close();
}

// --- Bodies --------------------------------------------------------------------------------------

TEST(HTTPResponseStream, AReadForNothingReadsNothing) {
  ScriptedPeer peer = PeerOf(kChunked + "5\r\nhello\r\n0\r\n\r\n");
  HTTPResponseStream stream(new ScriptedConnection(&peer), 3);
  ASSERT_TRUE(stream.Read_Headers());
  const size_t calls = peer.waits.size();
  char buffer[1] = {'?'};
  EXPECT_EQ(stream.Read(buffer, 0), 0);
  EXPECT_EQ(stream.Read(buffer, -1), 0);
  EXPECT_EQ(buffer[0], '?');
  EXPECT_EQ(peer.waits.size(), calls);
  EXPECT_EQ(stream.Read(buffer, 1), 1);
  EXPECT_EQ(stream.chunk_size, 5);
  EXPECT_EQ(stream.chunk_position, 1);
  stream.Close();
}

TEST(HTTPResponseStream, AReadIsOneReadOfTheConnection) {
  ScriptedPeer peer = PeerOf(kOK + "Content-Length: 5\r\n\r\nhello");
  peer.cuts = {peer.bytes.size() - 3};
  HTTPResponseStream stream(new ScriptedConnection(&peer), 3);
  ASSERT_TRUE(stream.Read_Headers());
  char buffer[10];
  EXPECT_EQ(stream.Read(buffer, 10), 2);
  EXPECT_EQ(stream.Read(buffer, 10), 3);
  const size_t calls = peer.waits.size();
  EXPECT_EQ(stream.Read(buffer, 10), 0);
  EXPECT_EQ(peer.waits.size(), calls) << "the end is known without the connection";
  EXPECT_EQ(stream.total, 5);
  stream.Close();
}

TEST(HTTPResponseStream, ACRLFInTwoPiecesIsABadTerminator) {
  const std::string head = kChunked + "2\r\nhe\r";
  for (size_t cut : {head.size(), head.size() - 1}) {
    ScriptedPeer peer = PeerOf(head + "\n0\r\n\r\n");
    peer.cuts = {cut};
    HTTPResponseStream stream(new ScriptedConnection(&peer), 3);
    ASSERT_TRUE(stream.Read_Headers());
    char buffer[10];
    const bool together = cut == head.size() - 1;
    EXPECT_EQ(stream.Read(buffer, 10), together ? 2 : -1);
    EXPECT_EQ(Text(stream.error), together ? "" : "Invalid chunk terminator");
    stream.Close();
  }
}

TEST(HTTPResponseStream, AfterAFailureBetweenChunksEveryReadFails) {
  for (const char* next : {"xy5\r\nabcde\r\n", "\r\n-1\r\n\r\n3\r\nabc\r\n", "\r\n"}) {
    ScriptedPeer peer = PeerOf(kChunked + "2\r\nhe" + next);
    HTTPResponseStream stream(new ScriptedConnection(&peer), 3);
    ASSERT_TRUE(stream.Read_Headers());
    char buffer[10];
    EXPECT_EQ(stream.Read(buffer, 10), -1);
    const std::string error = Text(stream.error);
    EXPECT_NE(error, "");
    const size_t at = peer.at;
    for (int i = 0; i < 3; i++) EXPECT_EQ(stream.Read(buffer, 10), -1);
    EXPECT_EQ(Text(stream.error), error);
    EXPECT_EQ(peer.at, at);
    stream.Close();
  }
}

TEST(HTTPResponseStream, AfterATrailerTheBodyIsOver) {
  ScriptedPeer peer = PeerOf(kChunked + "2\r\nhe\r\n0\r\nA: b\r\n\r\n");
  HTTPResponseStream stream(new ScriptedConnection(&peer), 3);
  ASSERT_TRUE(stream.Read_Headers());
  char buffer[10];
  EXPECT_EQ(stream.Read(buffer, 10), -1);
  EXPECT_EQ(Text(stream.error), "Invalid chunk terminator");
  EXPECT_EQ(stream.Read(buffer, 10), 0);
  stream.Close();
}

TEST(HTTPResponseStream, ATimeoutWithinTheBodyIsTheConnectionsText) {
  for (const std::string& head :
       {kOK + "\r\n", kOK + "Content-Length: 9\r\n\r\n", kChunked + "9\r\n"}) {
    ScriptedPeer peer = PeerOf(head + "hello");
    peer.stays = true;
    HTTPResponseStream stream(new ScriptedConnection(&peer), 3);
    ASSERT_TRUE(stream.Read_Headers());
    char buffer[10];
    EXPECT_EQ(stream.Read(buffer, 10), 5);
    EXPECT_EQ(stream.Read(buffer, 10), -1);
    EXPECT_EQ(Text(stream.error), kReadTimeout);
    EXPECT_EQ(stream.total, 5);
    stream.Close();
  }
}

// --- Peers without an end ------------------------------------------------------------------------

// After the bytes of its peer it repeats one line for ever. While is_body is set it gives as many
// bytes as it is asked for, and leaves the buffer as it is.
class EndlessConnection : public ScriptedConnection {
 public:
  EndlessConnection(ScriptedPeer* peer, std::string line)
      : ScriptedConnection(peer), line(std::move(line)) {}

  int Read(char* buffer, int length, int timeout) override {
    if (is_body) return length;
    return ScriptedConnection::Read(buffer, length, timeout);
  }
  int ReadLine(String& text, int timeout, int buffer_size) override {
    const int length = ScriptedConnection::ReadLine(text, timeout, buffer_size);
    if (length >= 0) return length;
    if (++lines == flag_at) *flag = 1;
    text.assign(line.data(), static_cast<int>(line.size()));
    return text.length;
  }

  bool is_body = false;
  long lines = 0;
  long flag_at = -1;
  int* flag = nullptr;

 private:
  std::string line;
};

TEST(HTTPResponseStream, TheEndOfTheTimeEndsAHeadWithoutAnEnd) {
  ScriptedPeer peer;
  auto connection = new EndlessConnection(&peer, "A: b\r\n");
  int flag = 0;
  connection->flag = &flag;
  connection->flag_at = 1000;
  HTTPResponseStream stream(connection, 3);
  const RunLimit limit(&flag);
  EXPECT_FALSE(stream.Read_Headers());
  EXPECT_EQ(Text(stream.error), "Read Timeout");
  EXPECT_EQ(connection->lines, 1000);
  EXPECT_EQ(stream.headers.Entries(), 1000);
  stream.Close();
}

TEST(HTTPResponseStream, TheMemoryOfTheRunEndsAHeadWithoutAnEnd) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  ScriptedPeer peer;
  {
    const ThreadMemory::Run run;
    ThreadMemory::SetLimit(1 << 20);
    auto connection = std::make_unique<EndlessConnection>(&peer, "A: b\r\n");
    HTTPResponseStream stream(connection.get(), 3);
    EXPECT_THROW((void)stream.Read_Headers(), std::bad_alloc);
    EXPECT_GT(connection->lines, 100);
    EXPECT_LT(connection->lines, 100000);
  }
  EXPECT_EQ(peer.deleted, 1) << "the stream does not delete the connection";
}

// The connection says that nothing was read although nothing failed.
TEST(HTTPResponseStream, AnEmptyLineFromTheConnectionIsAFailure) {
  ScriptedPeer peer;
  auto connection = new EndlessConnection(&peer, "");
  HTTPResponseStream stream(connection, 3);
  EXPECT_FALSE(stream.Read_Headers());
  EXPECT_EQ(connection->lines, 1);
  stream.Close();
}

TEST(HTTPResponseStream, ABodyOfUnknownLengthMayBeLongerThanAnInt) {
  ScriptedPeer peer = PeerOf(kOK + "\r\n");
  auto connection = new EndlessConnection(&peer, "");
  HTTPResponseStream stream(connection, 3);
  ASSERT_TRUE(stream.Read_Headers());
  connection->is_body = true;
  char unused[1];
  for (int i = 0; i < 5; i++) EXPECT_EQ(stream.Read(unused, INT_MAX), INT_MAX);
  EXPECT_EQ(stream.total, 5L * INT_MAX);
  stream.Close();
}

TEST(HTTPResponseStream, AChunkOfTheGreatestSizeIsReadToItsEnd) {
  ScriptedPeer peer = PeerOf(kChunked + "7fffffff\r\n");
  auto connection = new EndlessConnection(&peer, "");
  HTTPResponseStream stream(connection, 3);
  ASSERT_TRUE(stream.Read_Headers());
  connection->is_body = true;
  char unused[1];
  EXPECT_EQ(stream.Read(unused, INT_MAX - 1), INT_MAX - 1);
  EXPECT_EQ(stream.chunk_position, INT_MAX - 1);
  connection->is_body = false;
  peer.bytes += "x\r\n0\r\n\r\n";
  EXPECT_EQ(stream.Read(unused, INT_MAX), 1);
  EXPECT_EQ(stream.total, INT_MAX);
  EXPECT_EQ(stream.Read(unused, INT_MAX), 0);
  stream.Close();
}

TEST(HTTPResponseStream, NothingIsLostIfThereIsNoMemory) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  const std::string bytes =
      kOK + "Transfer-Encoding: chunked\r\nA: b\r\n\r\n5\r\nhello\r\n0\r\n\r\n";
  const long blocks = ExpectNothingIsLost([&] {
    ScriptedPeer peer = PeerOf(bytes);
    const auto connection = std::make_unique<ScriptedConnection>(&peer);
    HTTPResponseStream stream(connection.get(), 3);
    char buffer[10];
    EXPECT_TRUE(stream.Read_Headers());
    EXPECT_EQ(stream.Read(buffer, 10), 5);
  });
  EXPECT_GT(blocks, 10);
}

// --- Close ---------------------------------------------------------------------------------------

TEST(HTTPResponseStream, OnlyCloseDeletesTheConnection) {
  ScriptedPeer peer;
  auto connection = std::make_unique<ScriptedConnection>(&peer);
  { const HTTPResponseStream stream(connection.get(), 3); }
  EXPECT_EQ(peer.deleted, 0);
  HTTPResponseStream stream(connection.release(), 3);
  stream.Close();
  EXPECT_EQ(peer.deleted, 1);
  EXPECT_EQ(stream.connection, nullptr);
  stream.Close();
  EXPECT_EQ(peer.deleted, 1);
}

}  // namespace
