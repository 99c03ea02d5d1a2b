// Time zones of zephstd: hostile files and rules, and the server's own zone.

#include "extensions/zephstd/Zone.h"

#include <fstream>
#include <iterator>

#include "tests/extensions/Library.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using zephstd::Zone;

std::string ZoneFile(const std::string& zone) {
  std::ifstream file("/usr/share/zoneinfo/" + zone, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(StdZone, DamagedFilesAreRefusedOrRead) {
  const std::string bytes = ZoneFile("Europe/Berlin");
  ASSERT_GT(bytes.size(), 500u);
  Zone zone;
  ASSERT_TRUE(zone.ReadFile(bytes));
  EXPECT_EQ(zone.At(1795351500).offset, 3600);
  for (size_t cut = 0; cut < bytes.size(); cut++) {
    EXPECT_FALSE(zone.ReadFile(bytes.substr(0, cut))) << cut;
    EXPECT_EQ(zone.At(0).name, "UTC");
  }
  for (size_t i = 0; i < bytes.size(); i++) {
    for (const int with : {0x00, 0x7F, 0x80, 0xFF}) {
      std::string damaged = bytes;
      damaged[i] = static_cast<char>(with);
      if (!zone.ReadFile(damaged)) continue;
      for (const long long at : {-9000000000LL, 0LL, 1795351500LL, 99999999999LL}) {
        zone.At(at);
        zone.FromLocal(at);
      }
    }
  }
}

TEST(StdZone, Rules) {
  Zone zone;
  ASSERT_TRUE(zone.ReadRule("CET-1CEST,M3.5.0,M10.5.0/3"));
  EXPECT_EQ(zone.At(1795351500).name, "CET");
  EXPECT_EQ(zone.At(1782000000).name, "CEST");
  EXPECT_EQ(zone.At(1782000000).offset, 7200);
  ASSERT_TRUE(zone.ReadRule("<+0330>-3:30"));
  EXPECT_EQ(zone.At(0).offset, 12600);
  EXPECT_EQ(zone.At(0).name, "+0330");
  // Southern summer, and days by their number.
  ASSERT_TRUE(zone.ReadRule("AEST-10AEDT,M10.1.0,M4.1.0/3"));
  EXPECT_TRUE(zone.At(1767225600).dst);
  EXPECT_FALSE(zone.At(1782000000).dst);
  ASSERT_TRUE(zone.ReadRule("AAA0BBB,J60/0,J300/0"));
  EXPECT_FALSE(zone.At(1772323199).dst);  // 2026-02-28 23:59:59
  EXPECT_TRUE(zone.At(1772323200).dst);
  EXPECT_TRUE(zone.At(1709251200).dst);  // 2024-03-01, which is the 61st day of that year
  EXPECT_FALSE(zone.At(1709251199).dst);
  ASSERT_TRUE(zone.ReadRule("AAA0BBB,59/0,300/0"));
  EXPECT_TRUE(zone.At(1709164800).dst);  // 2024-02-29
  // Summer all year.
  ASSERT_TRUE(zone.ReadRule("EST5EDT,0/0,J365/25"));
  EXPECT_TRUE(zone.At(1767225600).dst);
  EXPECT_TRUE(zone.At(1767225600 + 5 * 3600).dst);
  for (const char* wrong :
       {"", "C", "CET", "CET-", "CET-1CEST", "CET-1CEST,", "CET-1CEST,M3.5.0", "CET-99",
        "CET-1CEST,M13.1.0,M10.5.0", "CET-1CEST,M3.6.0,M10.5.0", "CET-1CEST,M3.5.7,M10.5.0",
        "CET-1CEST,J0,J5", "CET-1CEST,366,5", "CET-1CEST,M3.5.0,M10.5.0/3x", "<+03-3", "CET-1:60",
        "CET-1CEST,M3.5.0/200,M10.5.0", "CET-99999999999"}) {
    EXPECT_FALSE(zone.ReadRule(wrong)) << wrong;
    EXPECT_EQ(zone.At(0).name, "UTC");
  }
}

// The zone of the server, in the process that has it.
TEST(StdZone, TheServersZoneIsThatOfItsProcess) {
  TemporaryDirectory directory;
  directory.File("zeph.toml",
                 "[[library]]\nkind = \"builtin\"\npath = \"" + InBuild("lib/zephstd.so") + "\"\n");
  directory.File("page.zpa",
                 ".function formattime(time, pattern, zone) external\n.end\n"
                 "pushf 1795351500\npushc \"%T %Z\"\npushc \"\"\ncall formattime\nout\n");
  Command assemble(
      {InBuild("bin/zpasm"), directory.path("page.zpa"), "-o", directory.path("page.zpc")});
  ASSERT_EQ(assemble.Run(), 0) << assemble.errors;
  const struct {
    const char* setting;
    const char* text;
  } cases[] = {
      {"Asia/Tokyo", "21:45:00 JST"},
      {":Asia/Tokyo", "21:45:00 JST"},
      {"/usr/share/zoneinfo/Asia/Tokyo", "21:45:00 JST"},
      {"EST5EDT,M3.2.0,M11.1.0", "07:45:00 EST"},
      {"", "12:45:00 UTC"},
      {"Nowhere/Place", "12:45:00 UTC"},
      {"../../../etc/passwd", "12:45:00 UTC"},
  };
  for (const auto& each : cases) {
    Command run({InBuild("bin/zprun"), "--config", directory.path("zeph.toml"),
                 directory.path("page.zpc")});
    run.environment = {{"TZ", each.setting}, {"ZpCONFIG_LIBRARY", ""}};
    EXPECT_EQ(run.Run(), 0) << run.errors;
    EXPECT_EQ(run.output, each.text) << each.setting;
  }
}

}  // namespace
