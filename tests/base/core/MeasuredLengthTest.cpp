#include "base/core/MeasuredLength.h"

#include <gtest/gtest.h>

#include <climits>

#include "base/core/LinkBuffer.h"
#include "base/host/BufferedOutput.h"
#include "base/host/Config.h"
#include "base/host/HTTPOutput.h"

namespace {

TEST(MeasuredLength, IsTheGivenLengthWhateverTheTextHolds) {
  const char text[] = {'a', 0, 'b'};
  EXPECT_EQ(MeasuredLength(text, 0), 0);
  EXPECT_EQ(MeasuredLength(text, 3), 3);
  EXPECT_EQ(MeasuredLength(text, INT_MAX), INT_MAX);
}

TEST(MeasuredLength, MinusOneIsTheLengthUpToTheNUL) {
  EXPECT_EQ(MeasuredLength("", -1), 0);
  EXPECT_EQ(MeasuredLength("seven..", -1), 7);
}

TEST(MeasuredLength, OtherNegativeLengthsAreNothing) {
  EXPECT_EQ(MeasuredLength("text", -2), 0);
  EXPECT_EQ(MeasuredLength("text", INT_MIN), 0);
}

TEST(MeasuredLength, NullTextHasNoBytes) {
  for (int length : {INT_MIN, -2, -1, 0, 1, INT_MAX}) {
    EXPECT_EQ(MeasuredLength(nullptr, length), 0) << length;
  }
}

// The places that treat a negative length otherwise.

TEST(MeasuredLength, EveryNegativeLengthOfASettingMeansTheTextUpToItsNUL) {
  Config config;
  for (int length : {-1, -2, INT_MIN}) {
    config.SetValue(Config_lock_hostname, "name", length, 0);
    Config copy(config);
    EXPECT_STREQ(copy.value_string(Config_lock_hostname), "name") << length;
  }
}

TEST(MeasuredLength, ChainOfBlocksMeasuresNothing) {
  LinkBuffer text(64, 64);
  text.cat("text", -1);
  text.cat("text", -2);
  EXPECT_EQ(text.total, 0);
}

TEST(MeasuredLength, CompressedWritesReturnOtherNegativeLengthsAsTheyAre) {
  NullOutput output(nullptr);
  EXPECT_EQ(output.Write_Compressed_Fast("four", -1), 4);
  EXPECT_EQ(output.Write_Compressed_Full("four", -1), 4);
  EXPECT_EQ(output.Write_Compressed_Fast("four", -2), -2);
  EXPECT_EQ(output.Write_Compressed_Full("four", -2), -2);
}

TEST(MeasuredLength, ReceiverOfDroppedTextGetsOtherNegativeLengthsAsTheyAre) {
  static int received = 0;
  NullOutput output([](const char*, int length) { return received = length; });
  EXPECT_EQ(output.Write("four", -1), 4);
  EXPECT_EQ(received, 4);
  EXPECT_EQ(output.Write("four", -2), -2);
  EXPECT_EQ(received, -2);
}

TEST(MeasuredLength, HeaderFieldWithoutATextIsEmpty) {
  const HTTPOutput_Header field(nullptr, -1, 0, nullptr, 5, 0);
  EXPECT_EQ(field.namelength, 0);
  EXPECT_EQ(field.valuelength, 0);
  const HTTPOutput_Header measured("Name", -1, 0, "value", 3, 0);
  EXPECT_EQ(measured.namelength, 4);
  EXPECT_EQ(measured.valuelength, 3);
}

}  // namespace
