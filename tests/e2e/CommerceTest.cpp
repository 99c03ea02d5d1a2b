// The commerce library of extensions/zephshipping.c and the system library of
// extensions/zephtariff.c, as a script sees them in both hosts.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"

namespace {

using testing::HasSubstr;

std::string Library(const std::string& kind, const std::string& name, const std::string& path) {
  return "[[library]]\nkind = \"" + kind + "\"\nname = \"" + name + "\"\npath = \"" + path + "\"\n";
}
const std::string kShipping = Library("commerce", "shipping", InBuild("lib/zephshipping.so"));
const std::string kTariff = Library("system", "tariff", InBuild("lib/zephtariff.so"));

// A page with a line for each offer.
std::string Offers(const std::string& weight, const std::string& zone,
                   const std::string& action = "quote") {
  return "pushc \"" + weight + "\"\npopg weight\npushc \"" + zone +
         "\"\npopg zone\n"
         "pushc \"shipping\"\npushc \"" +
         action +
         "\"\npushc \"weight, zone\"\nop_commerce end\n"
         "offer:\npushg carrier\nout\npushc \" \"\nout\npushg price\nout\npushc \"\\n\"\nout\n"
         "op_commerce_loop offer\nend:\n";
}

class ShippingPages : public testing::Test {
 protected:
  ShippingPages() { engine.settings = kShipping + kTariff; }

  // The page from zprun; the engine's has to be the same.
  std::string Page(const std::string& script) {
    engine.Script("page.zpc", script);
    engine.WriteConfiguration();
    Command command({InBuild("bin/zprun"), "--config", engine.Path("zeph.toml"),
                     engine.Path("scripts/page.zpc")});
    command.Run();
    EXPECT_TRUE(engine.Running() || engine.Start());
    const std::string page = engine.Get("/page.zpc").Body();
    // Messages name the script by the path that the host was given.
    if (page.find("Runtime error") == std::string::npos) {
      EXPECT_EQ(page, command.output);
    }
    return page;
  }

  EngineProcess engine;
};

TEST_F(ShippingPages, EachOfferIsARound) {
  EXPECT_EQ(Page(Offers("1200", "2")), "parcel 11.40\ncourier 26.80\n");
  EXPECT_EQ(Page(Offers("500", "1")), "letter 1.80\nparcel 4.90\ncourier 12.90\n");
  EXPECT_EQ(Page(Offers("501", "4")), "parcel 21.90\n");
}

TEST_F(ShippingPages, WithoutAnOfferTheBodyDoesNotRun) {
  EXPECT_EQ(Page(Offers("30001", "1")), "");
  EXPECT_EQ(Page(Offers("1", "5")), "");
}

TEST_F(ShippingPages, WhatIsWrongIsAnErrorOfTheTag) {
  EXPECT_THAT(Page(Offers("none", "1")),
              HasSubstr("ZpCOMMERCE: shipping: this field has to be a number above 0: weight\n"));
  EXPECT_THAT(Page(Offers("1", "-1")), HasSubstr("above 0: zone\n"));
  EXPECT_THAT(Page(Offers("1", "1", "buy")), HasSubstr("shipping: there is no action buy\n"));
}

TEST_F(ShippingPages, AMissingTariffIsSaid) {
  engine.settings = kShipping;
  EXPECT_THAT(Page(Offers("1", "1")),
              HasSubstr("shipping: System library 'tariff' is not configured\n"));
}

TEST_F(ShippingPages, ATariffThatCannotBeOpenedIsSaid) {
  engine.settings = kShipping + Library("system", "tariff", "/nonexistent/tariff.so");
  EXPECT_THAT(Page(Offers("1", "1")), HasSubstr("shipping: /nonexistent/tariff.so: "));
}

TEST_F(ShippingPages, ATariffWithoutItsFunctionsIsSaid) {
  engine.settings = kShipping + Library("system", "tariff", InBuild("lib/zephshipping.so"));
  EXPECT_THAT(Page(Offers("1", "1")), HasSubstr("shipping: Unknown symbol 'tariff_"));
}

TEST_F(ShippingPages, AnUnknownMethodIsAnErrorOfTheTag) {
  engine.settings = kTariff;
  EXPECT_THAT(Page(Offers("1", "1")),
              HasSubstr("Commerce method 'shipping' is unsupported or not configured\n"));
}

}  // namespace
