#include "base/values/MemberLayout.h"

#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Releases the layout at the end.
class Held {
 public:
  explicit Held(MemberLayout* layout) : layout(layout) {}
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  ~Held() {
    if (layout) layout->Release();
  }
  void Add(const std::string& name) {
    layout = MemberLayout::With(layout, name.data(), static_cast<int>(name.size()));
  }
  MemberLayout* operator->() const { return layout; }
  MemberLayout* get() const { return layout; }

 private:
  MemberLayout* layout;
};

int Find(const Held& layout, const std::string& name) {
  return layout->Find(name.data(), static_cast<int>(name.size()));
}

TEST(MemberLayout, StructuresWithTheSameNamesInTheSameOrderShareIt) {
  Held a(nullptr), b(nullptr), c(nullptr);
  for (const char* name : {"x", "y", "z"}) a.Add(name);
  for (const char* name : {"x", "y", "z"}) b.Add(name);
  for (const char* name : {"x", "z", "y"}) c.Add(name);
  EXPECT_EQ(a.get(), b.get());
  EXPECT_NE(a.get(), c.get());
  EXPECT_EQ(Find(a, "z"), 2);
  EXPECT_EQ(Find(c, "z"), 1);
  Held d(nullptr);
  for (const char* name : {"x", "Y", "z"}) d.Add(name);
  EXPECT_NE(a.get(), d.get());
  EXPECT_EQ(Find(d, "y"), 1);
}

TEST(MemberLayout, NamesKeepTheirSlotsAndAreInOrder) {
  Held layout(nullptr);
  std::vector<std::string> names;
  std::set<std::string> sorted;
  for (int i = 0; i < MemberLayout::kMost; i++) {
    names.push_back(std::string(static_cast<size_t>(i % 5), 'x') + std::to_string(i * 37 % 101));
    sorted.insert(names.back());
    layout.Add(names.back());
    for (size_t slot = 0; slot < names.size(); slot++) {
      ASSERT_EQ(Find(layout, names[slot]), static_cast<int>(slot));
    }
    ASSERT_EQ(Find(layout, "missing"), -1);
    ASSERT_EQ(Find(layout, ""), -1);
    int rank = 0;
    for (const std::string& name : sorted) {
      ASSERT_EQ(names[static_cast<size_t>(layout->InOrder(rank++))], name);
    }
  }
}

TEST(MemberLayout, BeforeCountsTheNamesThatSortBefore) {
  Held layout(nullptr);
  for (const char* name : {"m", "Ma", "b"}) layout.Add(name);
  EXPECT_EQ(layout->Before("", 0), 0);
  EXPECT_EQ(layout->Before("a", 1), 0);
  EXPECT_EQ(layout->Before("C", 1), 1);
  EXPECT_EQ(layout->Before("M0", 2), 2);
  EXPECT_EQ(layout->Before("mb", 2), 3);
}

TEST(MemberLayout, OneThatOthersHoldDoesNotChange) {
  Held large(nullptr);
  for (int i = 0; i < 30; i++) large.Add("n" + std::to_string(i));
  MemberLayout* const before = large.get();
  large.Add("in place");
  EXPECT_EQ(large.get(), before);
  before->Hold();
  Held other(before);
  large.Add("elsewhere");
  EXPECT_NE(large.get(), before);
  EXPECT_EQ(other->count(), 31);
  EXPECT_EQ(large->count(), 32);
  EXPECT_NE(large->serial(), other->serial());
}

TEST(MemberLayout, AHintIsFollowedOnlyInItsLayout) {
  Held a(nullptr), b(nullptr);
  for (const char* name : {"x", "y"}) a.Add(name);
  for (const char* name : {"y", "x"}) b.Add(name);
  MemberHint hint;
  EXPECT_EQ(a->Find("nothing", 7, &hint), -1);
  EXPECT_EQ(hint.layout, 0u);
  EXPECT_EQ(a->Find("y", 1, &hint), 1);
  EXPECT_EQ(hint.layout, a->serial());
  EXPECT_EQ(b->Find("y", 1, &hint), 0);
  EXPECT_EQ(a->Find("y", 1, &hint), 1);
}

TEST(MemberLayout, ManyKindsOfStructuresPushOneAnotherOut) {
  for (int round = 0; round < 3; round++) {
    for (int kind = 0; kind < 2000; kind++) {
      Held layout(nullptr);
      for (int i = 0; i < 3; i++) layout.Add(std::to_string(kind) + "." + std::to_string(i));
      ASSERT_EQ(layout->count(), 3);
      ASSERT_EQ(Find(layout, std::to_string(kind) + ".2"), 2);
    }
    MemberLayout::ForgetCommon();
  }
}

TEST(MemberLayout, WhatIsForgottenIsMadeAgain) {
  const auto serial = [](const char* name) {
    Held layout(nullptr);
    layout.Add("id");
    layout.Add(name);
    return layout->serial();
  };
  uint64_t before = 0;
  for (int round = 0; round < 3; round++) {
    const uint64_t made = serial("x");
    EXPECT_GT(made, before) << "nothing is left of the last round";
    EXPECT_EQ(serial("x"), made);
    EXPECT_NE(serial("y"), made);
    before = serial("y");
    MemberLayout::ForgetCommon();
    MemberLayout::ForgetCommon();
  }
}

TEST(MemberLayout, OneApartCanGoToAnotherThread) {
  Held layout(nullptr);
  for (const char* name : {"x", "y"}) layout.Add(name);
  MemberLayout* const apart = layout->Apart();
  EXPECT_NE(apart->name(0), layout->name(0));
  EXPECT_NE(apart->serial(), layout->serial());
  std::thread([apart] {
    Held there(apart);
    there.Add("z");
    EXPECT_EQ(there->count(), 3);
    EXPECT_EQ(there->Find("X", 1), 0);
  }).join();
  EXPECT_EQ(layout->count(), 2);
}

}  // namespace
