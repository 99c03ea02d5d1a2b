#include "base/request/SpecialVariable.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <vector>

#include "base/compiled/ForwardingVariableHash.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/core/zptime.h"
#include "base/extensions/CommerceLibrary.h"
#include "base/extensions/ExternalDatabaseLibrary.h"
#include "base/extensions/SystemLibrary.h"
#include "base/host/Config.h"
#include "base/systems/unix/UNIXExternalLibrary.h"
#include "base/values/Aggregate.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"
#include "tests/support/Machine.h"
#include "tests/support/Paths.h"

namespace {

// An application that counts the calls of SSL_Available and returns what a test sets.
class CountingApplication : public MachineApplication {
 public:
  int SSL_Available(String*) override {
    asked_for_ssl++;
    return ssl;
  }
  long TimeRemaining() override { return remaining; }
  const char* process_name() override { return process; }

  int asked_for_ssl = 0;
  int ssl = 0;
  long remaining = -1;
  const char* process = "zeph: testing";
};

class SpecialVariables : public testing::Test {
 protected:
  SpecialVariables() { table.SetLateVariables(NewSystemVariables(&application)); }
  Variable& Get(const char* name) {
    Variable* found = nullptr;
    table.Find(&found, name, -1, 0);
    if (!found) ADD_FAILURE() << name;
    return found ? *found : nothing;
  }
  Variable& Setting(const char* name) {
    Variable* found = Get("zeph_config").Element(AggregateIndex(name, -1), 0);
    if (!found) ADD_FAILURE() << name;
    return found ? *found : nothing;
  }
  static std::string Text(Variable& variable) { return Machine::Text(variable); }

  CountingApplication application;
  Dictionary dictionary;
  SystemVariableHash table{&dictionary, 12, 512};
  NULLVariable nothing;
};

// The names of a table, in the order of a listing.
std::string Listing(VariableHash* table) {
  VariableList all;
  table->AllocatedVars(&all);
  std::string names;
  for (Variable* v = all.First(); v; v = all.Next()) names += std::string(v->name().data) + " ";
  return names;
}

TEST_F(SpecialVariables, AllAreThereInTheirOrder) {
  EXPECT_EQ(Listing(&table),
            "time_t tm_usec tm_sec tm_min tm_hour tm_mday tm_mon stm_mon tm_year tm_wday stm_wday "
            "tm_yday tm_isdst stm_zone globaltimeout zephversion "
            "dyn_time_t dyn_tm_usec dyn_tm_sec dyn_tm_min dyn_tm_hour dyn_tm_mday dyn_tm_mon "
            "dyn_stm_mon dyn_tm_year dyn_tm_wday dyn_stm_wday dyn_tm_yday dyn_tm_isdst "
            "dyn_stm_zone dyn_time_remaining zeph_language zeph_defaultlanguage "
            "zeph_defaultdatabase zeph_charset zeph_sslavailable zeph_config process_name ");
}

// --- Made when they are looked for ---------------------------------------------------------------

TEST_F(SpecialVariables, AreNotMadeUntilSomebodyLooks) {
  const int before = dictionary.Entries();
  Variable* found = nullptr;
  EXPECT_FALSE(table.Find(&found, "zeph_languages", -1, 0));
  EXPECT_FALSE(table.Find(&found, "dyn_", -1, 0));
  EXPECT_FALSE(table.Find(&found, "", 0, 0));
  for (int length : {31, 32, 33, 1000}) {
    EXPECT_FALSE(table.Find(&found, std::string(length, 'z').c_str(), length, 0)) << length;
  }
  EXPECT_EQ(dictionary.Entries(), before);
  EXPECT_TRUE(table.Find(&found, "ZEPH_Language", -1, 0));
  Variable* again = nullptr;
  EXPECT_TRUE(table.Find(&again, "zeph_language", -1, 0));
  EXPECT_EQ(again, found);
  EXPECT_EQ(table.Entries(), 38);
}

// Each look-up on its own, then listings and positions.
TEST_F(SpecialVariables, HaveOneOrderWhateverWasLookedUpFirst) {
  const std::string order = Listing(&table);
  void (*const looks[])(SystemVariableHash*) = {
      [](SystemVariableHash*) {},
      [](SystemVariableHash* t) {
        Variable* v = nullptr;
        t->Find(&v, "process_name", -1, 0);
        t->Find(&v, "time_t", -1, 0);
      },
      [](SystemVariableHash* t) { t->Seek(-1, "zeph_config", -1, nullptr); },
      [](SystemVariableHash* t) { t->Index(20, 0); },
      [](SystemVariableHash* t) { t->ClearVariable("tm_mon", -1); },
      [](SystemVariableHash* t) { t->SetVariable("zeph_charset", -1, "latin1", -1); },
      [](SystemVariableHash* t) { t->Entries(); },
      [](SystemVariableHash* t) { t->SetVariable(new Variable("other", -1)); },
      [](SystemVariableHash* t) { t->Insert("other", -1); },
      [](SystemVariableHash* t) {
        t->Push();
        t->SetVariable(new Variable("stm_zone", -1, "here", -1));
        t->SetVariable(new Variable("other", -1));
        t->Pop();
      },
  };
  for (const auto& look : looks) {
    SCOPED_TRACE(&look - looks);
    Dictionary names;
    SystemVariableHash fresh(&names, 12, 512);
    fresh.SetLateVariables(NewSystemVariables(&application));
    look(&fresh);
    EXPECT_EQ(Listing(&fresh).substr(0, order.size()), order);
    EXPECT_EQ(fresh.Seek(-1, "time_t", -1, nullptr), 0);
    EXPECT_EQ(fresh.Seek(-1, "process_name", -1, nullptr), 37);
  }
}

TEST_F(SpecialVariables, AreThereByPositionBeforeAnyOtherQuestion) {
  for (int i = 37; i >= 0; i--) {
    Variable* variable = table.Index(i, 0);
    ASSERT_NE(variable, nullptr) << i;
    if (i == 37) {
      EXPECT_EQ(std::string(variable->name().data), "process_name");
    }
    if (i == 0) {
      EXPECT_EQ(std::string(variable->name().data), "time_t");
    }
  }
  EXPECT_EQ(table.Index(38, 0), nullptr);
  EXPECT_EQ(table.Index(-1, 0), nullptr);
}

// The names remain, like those of all variables.
TEST_F(SpecialVariables, AreGoneAfterADump) {
  for (bool seen : {false, true}) {
    SCOPED_TRACE(seen);
    SystemVariableHash dumped(&dictionary, 12, 512);
    dumped.SetLateVariables(NewSystemVariables(&application));
    if (seen) {
      EXPECT_EQ(dumped.Seek(-1, "time_t", -1, nullptr), 0);
    }
    dumped.Dump();
    Variable* found = nullptr;
    EXPECT_TRUE(dumped.Find(&found, "time_t", -1, 0));
    EXPECT_TRUE(dumped.Find(&found, "process_name", -1, 0));
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(dumped.Index(0, 0), nullptr);
    EXPECT_EQ(Listing(&dumped), "");
    EXPECT_EQ(dumped.Entries(), 38);
    dumped.SetVariable("time_t", -1, "mine", -1);
    EXPECT_EQ(Listing(&dumped), "time_t ");
  }
}

TEST_F(SpecialVariables, StandInPlaceOfWhatWentByTheirNames) {
  SystemVariableHash other(&dictionary, 12, 512);
  other.SetVariable(new Variable("process_name", -1, "mine", -1));
  other.SetVariable(new Variable("mine", -1, "mine", -1));
  other.SetLateVariables(NewSystemVariables(&application));
  Variable* found = nullptr;
  ASSERT_TRUE(other.Find(&found, "process_name", -1, 0));
  EXPECT_EQ(Text(*found), "zeph: testing");
  ASSERT_TRUE(other.Find(&found, "mine", -1, 0));
  EXPECT_EQ(Text(*found), "mine");
}

TEST_F(SpecialVariables, EveryWayToANameFindsThem) {
  const struct {
    const char* label;
    bool (*look)(SystemVariableHash*);
  } ways[] = {
      {"Find",
       [](SystemVariableHash* t) {
         Variable* v = nullptr;
         return t->Find(&v, "zeph_charset", -1, 0) && v;
       }},
      {"Seek",
       [](SystemVariableHash* t) {
         _VH_Entry* entry = nullptr;
         return t->Seek(-1, "zeph_charset", -1, &entry) >= 0 && entry->variable;
       }},
      {"LookupVariable_Fancy",
       [](SystemVariableHash* t) {
         Variable* v = nullptr;
         return t->LookupVariable_Fancy(&v, "zeph_charset", -1, 0) && v;
       }},
      {"a path",
       [](SystemVariableHash* t) {
         Variable* v = nullptr;
         return t->LookupVariable_Fancy(&v, "zeph_config:cookies", -1, 0) && v;
       }},
      {"ClearVariable",
       [](SystemVariableHash* t) { return t->ClearVariable("zeph_charset", -1) == 1; }},
      {"SetVariable",
       [](SystemVariableHash* t) {
         t->SetVariable("zeph_charset", -1, "latin1", -1);
         Variable* v = nullptr;
         return t->Find(&v, "zeph_charset", -1, 0) && Text(*v) == "latin1" &&
                dynamic_cast<CharacterSetVariable*>(v);
       }},
      {"SetVariable_Fancy",
       [](SystemVariableHash* t) {
         t->SetVariable_Fancy("zeph_charset", -1, "koi8", -1, 1);
         Variable* v = nullptr;
         return t->Find(&v, "zeph_charset", -1, 0) && Text(*v) == "koi8" &&
                dynamic_cast<CharacterSetVariable*>(v);
       }},
      {"a listing",
       [](SystemVariableHash* t) { return Listing(t).find("zeph_charset ") != std::string::npos; }},
  };
  for (const auto& way : ways) {
    SCOPED_TRACE(way.label);
    SystemVariableHash fresh(&dictionary, 12, 512);
    fresh.SetLateVariables(NewSystemVariables(&application));
    EXPECT_TRUE(way.look(&fresh));
  }
}

// Code of a script reaches a variable by the position that the name has in the file.
TEST_F(SpecialVariables, ANameOfTheFileGetsItsVariable) {
  SystemVariableHash other(&dictionary, 12, 512);
  const int position = other.Insert("ZEPH_language", -1);
  other.SetLateVariables(NewSystemVariables(&application));
  ASSERT_NE(other.Index(position, 0), nullptr);
  EXPECT_EQ(Text(*other.Index(position, 0)), "en-US");
  EXPECT_EQ(other.Seek(-1, "zeph_language", -1, nullptr), position);
  const int second = other.VariableHash::Insert(-1, "zeph_language", -1, nullptr);
  EXPECT_EQ(other.Index(second, 0), nullptr) << "the first of a name has it";
}

TEST_F(SpecialVariables, ALevelTakesBackWhatWasSetOnIt) {
  for (bool seen_before : {false, true}) {
    for (bool seen_on_it : {false, true}) {
      SCOPED_TRACE(testing::Message() << seen_before << seen_on_it);
      SystemVariableHash levels(&dictionary, 12, 512);
      levels.SetLateVariables(NewSystemVariables(&application));
      const auto text = [&] {
        Variable* v = nullptr;
        return levels.Find(&v, "process_name", -1, 0) && v ? Text(*v) : "(none)";
      };
      if (seen_before) {
        EXPECT_EQ(text(), "zeph: testing");
      }
      levels.Push();
      if (seen_on_it) {
        EXPECT_EQ(text(), "zeph: testing");
      }
      levels.SetVariable(new Variable("process_name", -1, "shadow", -1));
      EXPECT_EQ(text(), "shadow");
      EXPECT_EQ(levels.Pop(), 1);
      EXPECT_EQ(text(), "zeph: testing");
    }
  }
}

TEST_F(SpecialVariables, AReplacedOneStaysReplaced) {
  table.SetVariable(new Variable("process_name", -1, "mine", -1));
  EXPECT_EQ(Text(Get("process_name")), "mine");
  EXPECT_EQ(table.Entries(), 38);
  Variable* second = new Variable("zeph_charset", -1, "second", -1);
  table.Insert(second);
  EXPECT_EQ(Text(Get("zeph_charset")), "utf-8") << "a second entry is never reached";
}

// --- The clock -----------------------------------------------------------------------------------

// Every field is between the clock's values before and after the read, unless it has wrapped in
// between; a second try then succeeds.
TEST_F(SpecialVariables, TheClockIsReadFieldByField) {
  const struct {
    const char* name;
    long (*field)(const ZPTIME&);
  } cases[] = {
      {"dyn_time_t", [](const ZPTIME& t) { return static_cast<long>(t.seconds); }},
      {"dyn_tm_sec", [](const ZPTIME& t) { return static_cast<long>(t.second); }},
      {"dyn_tm_min", [](const ZPTIME& t) { return static_cast<long>(t.minute); }},
      {"dyn_tm_hour", [](const ZPTIME& t) { return static_cast<long>(t.hour); }},
      {"dyn_tm_mday", [](const ZPTIME& t) { return static_cast<long>(t.day); }},
      {"dyn_tm_mon", [](const ZPTIME& t) { return static_cast<long>(t.month); }},
      {"dyn_tm_year", [](const ZPTIME& t) { return static_cast<long>(t.year); }},
      {"dyn_tm_wday", [](const ZPTIME& t) { return static_cast<long>(t.weekday); }},
      {"dyn_tm_yday", [](const ZPTIME& t) { return static_cast<long>(t.yearday); }},
      {"dyn_tm_isdst", [](const ZPTIME& t) { return static_cast<long>(t.dst); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Variable& v = Get(c.name);
    EXPECT_EQ(v.type(), VariableComputedInteger);
    long before, value, after;
    std::string text;
    double number, compared;
    int not_numeric = 7;
    do {
      ZPTIME now;
      zp_gettimevalues(&now);
      before = c.field(now);
      value = v.value_integer();
      text = Text(v);
      number = v.value_double();
      compared = v.value_compare(&not_numeric);
      zp_gettimevalues(&now);
      after = c.field(now);
    } while (before != after);
    EXPECT_EQ(value, before);
    EXPECT_EQ(text, std::to_string(before));
    EXPECT_EQ(number, static_cast<double>(before));
    EXPECT_EQ(compared, static_cast<double>(before));
    EXPECT_EQ(not_numeric, 0);
    EXPECT_EQ(v.IsNULL(), 0);
    EXPECT_EQ(v.IsTrue(), before != 0);
  }
  const int microseconds = Get("dyn_tm_usec").value_integer();
  EXPECT_GE(microseconds, 0);
  EXPECT_LT(microseconds, 1000000);
}

TEST_F(SpecialVariables, NamesOfTheClockAreNoNumbers) {
  for (const char* name : {"dyn_stm_mon", "dyn_stm_wday", "dyn_stm_zone"}) {
    SCOPED_TRACE(name);
    Variable& v = Get(name);
    EXPECT_EQ(v.type(), VariableComputedText);
    EXPECT_EQ(v.value_integer(), 0);
    EXPECT_EQ(v.value_double(), 0.0);
    int not_numeric = 0;
    EXPECT_EQ(v.value_compare(&not_numeric), 0.0);
    EXPECT_EQ(not_numeric, 1);
    EXPECT_GE(v.value().length, 3);
    EXPECT_EQ(v.IsNULL(), 0);
    EXPECT_EQ(v.IsTrue(), 1);
  }
}

// Each second of the table's time is one that the clock has shown, at whatever time a script reads
// it.
TEST_F(SpecialVariables, TheMomentOfTheTableStandsStill) {
  ZPTIME now;
  zp_gettimevalues(&now);
  SystemVariableHash fresh(&dictionary, 12, 512);
  fresh.SetLateVariables(NewSystemVariables(&application));
  ZPTIME then;
  zp_gettimevalues(&then);
  const auto get = [&](const char* name) {
    Variable* v = nullptr;
    EXPECT_TRUE(fresh.Find(&v, name, -1, 0)) << name;
    return v ? Text(*v) : "";
  };
  do {
    zp_gettimevalues(&then);
  } while (then.microseconds == now.microseconds);
  const long second = stol(get("time_t"));
  EXPECT_GE(second, now.seconds);
  EXPECT_LE(second, then.seconds);
  time_t moment = second;
  tm local{};
  localtime_r(&moment, &local);
  char text[64];
  strftime(text, sizeof text, "%b %a %Z", &local);
  EXPECT_EQ(get("stm_mon") + " " + get("stm_wday") + " " + get("stm_zone"), text);
  EXPECT_EQ(get("tm_sec"), std::to_string(local.tm_sec));
  EXPECT_EQ(get("tm_min"), std::to_string(local.tm_min));
  EXPECT_EQ(get("tm_hour"), std::to_string(local.tm_hour));
  EXPECT_EQ(get("tm_mday"), std::to_string(local.tm_mday));
  EXPECT_EQ(get("tm_mon"), std::to_string(local.tm_mon + 1));
  EXPECT_EQ(get("tm_year"), std::to_string(local.tm_year + 1900));
  EXPECT_EQ(get("tm_wday"), std::to_string(local.tm_wday + 1));
  EXPECT_EQ(get("tm_yday"), std::to_string(local.tm_yday + 1));
  EXPECT_EQ(get("tm_isdst"), std::to_string(local.tm_isdst));
  const std::string microseconds = get("tm_usec");
  do {
    zp_gettimevalues(&now);
  } while (now.microseconds == then.microseconds);
  EXPECT_EQ(get("tm_usec"), microseconds);
  EXPECT_EQ(get("globaltimeout"), "90");
  EXPECT_EQ(get("zephversion"), "5.29");
  // Also in a task that begins later, whether or not the run has read it.
  CountingApplication task;
  Dictionary names(dictionary);
  ClonedVariableHash copy(&task, &names, fresh);
  for (const char* name : {"time_t", "tm_usec"}) {
    Variable* v = nullptr;
    ASSERT_TRUE(copy.Find(&v, name, -1, 0));
    EXPECT_EQ(Text(*v), get(name));
  }
}

TEST_F(SpecialVariables, ALaterReadIsOfALaterMoment) {
  Variable& seconds = Get("dyn_time_t");
  Variable& microseconds = Get("dyn_tm_usec");
  const int first = microseconds.value_integer();
  const int start = seconds.value_integer();
  while (microseconds.value_integer() == first && seconds.value_integer() == start) {
  }
  SUCCEED() << "the clock has moved on";
}

TEST_F(SpecialVariables, ACopyOfTheClockStandsStill) {
  Variable copy("copy", -1);
  copy.SetValue(Get("dyn_tm_usec"));
  EXPECT_EQ(copy.type(), VariableStored);
  EXPECT_EQ(copy.primary_type(), PrimaryInteger);
  const int at = copy.value_integer();
  while (Get("dyn_tm_usec").value_integer() == at) {
  }
  EXPECT_EQ(copy.value_integer(), at);
  copy.SetValue(Get("dyn_stm_wday"));
  EXPECT_EQ(copy.primary_type(), PrimaryText);
  EXPECT_EQ(copy.value().length, 3);
}

TEST_F(SpecialVariables, TimeRemainingIsAskedFor) {
  Variable& v = Get("dyn_time_remaining");
  EXPECT_EQ(v.type(), VariableComputedInteger);
  for (long seconds : {-1L, 0L, 30L, -7L}) {
    application.remaining = seconds;
    EXPECT_EQ(Text(v), std::to_string(seconds));
    EXPECT_EQ(v.value_integer(), seconds);
    EXPECT_EQ(v.value_double(), static_cast<double>(seconds));
    int not_numeric = 1;
    EXPECT_EQ(v.value_compare(&not_numeric), static_cast<double>(seconds));
    EXPECT_EQ(not_numeric, 0);
  }
}

TEST(TimeRemaining, IsMinusOneWithoutALimit) {
  TestApplication application;
  TimeRemainingVariable v("dyn_time_remaining", &application);
  EXPECT_EQ(v.value_integer(), -1);
  application.config()->SetValue_Integer(Config_timeout_global, 1000);
  application.ResetGlobalTimeout();
  EXPECT_GT(v.value_integer(), 990);
  EXPECT_LE(v.value_integer(), 1000);
}

TEST_F(SpecialVariables, TheOthersCannotBeWritten) {
  for (const char* name : {"dyn_time_t", "dyn_stm_mon", "dyn_time_remaining", "zeph_sslavailable",
                           "zeph_config", "process_name"}) {
    SCOPED_TRACE(name);
    Variable& v = Get(name);
    const int kind = v.type();
    EXPECT_EQ(v.SetValue("written", -1), 1);
    EXPECT_EQ(v.SetValue_Integer(4711), 1);
    EXPECT_EQ(v.SetValue_Double(4711.5), 1);
    EXPECT_EQ(v.SetValue_Nocopy(OwnedText("written"), 7, 8), 1);
    Variable source("source", -1, 4711);
    EXPECT_EQ(v.SetValue(source), 1);
    v.SetNULL();
    v.Make_Reference(&source);
    EXPECT_EQ(v.type(), kind);
    EXPECT_EQ(Text(v).find("written"), std::string::npos);
    EXPECT_NE(v.value_integer(), 4711);
  }
}

// A variable that is gone reads as NULL for all its holders, whatever its class computes, and a
// store into it must not reach the application.
TEST_F(SpecialVariables, OneThatIsGoneReadsAsNULLAndTellsNothing) {
  std::vector<VariableRef> gone;
  for (const char* name : {"dyn_time_t", "dyn_stm_mon", "dyn_time_remaining", "zeph_language",
                           "zeph_defaultlanguage", "zeph_defaultdatabase", "zeph_charset",
                           "zeph_sslavailable", "zeph_config", "process_name"}) {
    gone.push_back(VariableRef::Share(&Get(name)));
  }
  for (const char* name : {"timeout_global", "dir_temp", "commerce_list", "commerce_lookup"}) {
    gone.push_back(VariableRef::Share(&Setting(name)));
  }
  application.SetLanguage("de");
  application.SetDefaultLanguage("de");
  application.SetDefaultDatabase("db");
  application.SetCharacterSet("latin1");
  for (const VariableRef& held : gone) {
    Variable& v = *held.get();
    SCOPED_TRACE(v.name().data);
    v.Make_NULL();
    EXPECT_EQ(v.SetValue("written", -1), 1);
    EXPECT_EQ(v.SetValue_Integer(4711), 1);
    EXPECT_EQ(v.SetValue_Double(4711.5), 1);
    EXPECT_EQ(v.SetValue_Nocopy(OwnedText("written"), 7, 8), 1);
    Variable source("source", -1, 4711);
    EXPECT_EQ(v.SetValue(source), 1);
    EXPECT_EQ(Text(v), "");
    EXPECT_EQ(v.value_integer(), 0);
    EXPECT_EQ(v.value_double(), 0.0);
    int not_numeric = 1;
    EXPECT_EQ(v.value_compare(&not_numeric), 0.0);
    EXPECT_EQ(not_numeric, 0);
    EXPECT_EQ(v.type(), VariableNULL);
    EXPECT_EQ(v.IsNULL(), 1);
    EXPECT_EQ(v.IsTrue(), 0);
    EXPECT_EQ(v.ElementsUsed(), 0);
    EXPECT_EQ(v.Element(AggregateIndex("x", -1), 0), nullptr);
    const VariableRef clone(v.Clone(&application));
    EXPECT_EQ(clone->type(), VariableNULL);
    EXPECT_EQ(Text(*clone), "");
  }
  EXPECT_EQ(application.asked_for_ssl, 0);
  EXPECT_STREQ(application.language().data, "de");
  EXPECT_STREQ(application.defaultlanguage().data, "de");
  EXPECT_STREQ(application.defaultdatabase().data, "db");
  EXPECT_STREQ(application.charset().data, "latin1");
}

// --- What a script may set -----------------------------------------------------------------------

struct TextSetting {
  const char* name;
  const char* initial;
  const String& (ZephApplication::*get)();
  int (ZephApplication::*count)();
  void (ZephApplication::*set)(const String&);
};
const TextSetting text_settings[] = {
    {"zeph_language", "en-US", &ZephApplication::language, &ZephApplication::languagecount,
     &ZephApplication::SetLanguage},
    {"zeph_defaultlanguage", "en-US", &ZephApplication::defaultlanguage,
     &ZephApplication::defaultlanguagecount, &ZephApplication::SetDefaultLanguage},
    {"zeph_defaultdatabase", "xbase3", &ZephApplication::defaultdatabase,
     &ZephApplication::defaultdatabasecount, &ZephApplication::SetDefaultDatabase},
    {"zeph_charset", "utf-8", &ZephApplication::charset, &ZephApplication::charsetcount,
     &ZephApplication::SetCharacterSet},
};

TEST_F(SpecialVariables, SettingsOfTheScriptAreReadAndWritten) {
  for (const TextSetting& s : text_settings) {
    SCOPED_TRACE(s.name);
    Variable& v = Get(s.name);
    EXPECT_EQ(v.type(), VariableStored);
    EXPECT_EQ(Text(v), s.initial);
    EXPECT_EQ(v.primary_type(), PrimaryText);
    int count = (application.*s.count)();
    const auto expect = [&](const char* text) {
      EXPECT_EQ((application.*s.count)(), ++count) << text;
      EXPECT_STREQ((application.*s.get)().data, text);
      EXPECT_EQ(Text(v), text);
    };
    EXPECT_EQ(v.SetValue("de-CH", 2), 1);
    expect("de");
    EXPECT_EQ(v.SetValue("fr", -1), 1);
    expect("fr");
    EXPECT_EQ(v.SetValue_Nocopy(OwnedText("it-IT"), 2, 6), 1);
    expect("it");
    EXPECT_EQ(v.SetValue_Integer(-12), 1);
    expect("-12");
    EXPECT_EQ(v.SetValue_Double(2.5), 1);
    expect("2.5");
    Variable source("s", -1, "es\0pt", 5);
    EXPECT_EQ(v.SetValue(source), 1);
    expect("es");
    Variable null("n", -1);
    EXPECT_EQ(v.SetValue(null), 1);
    expect("");
    EXPECT_EQ(v.IsNULL(), 1);
    EXPECT_EQ(v.SetValue("x", 1), 1);
    expect("x");
    EXPECT_EQ(v.SetValue(v), 1);
    expect("x");
  }
}

// A change from outside is visible at the next read, of any kind.
TEST_F(SpecialVariables, AChangeFromOutsideIsSeenByEveryRead) {
  for (const TextSetting& s : text_settings) {
    SCOPED_TRACE(s.name);
    Variable& v = Get(s.name);
    const auto change = [&](const char* text) { (application.*s.set)(String(text, -1)); };
    change("12");
    EXPECT_EQ(v.value_integer(), 12);
    change("2.5");
    EXPECT_EQ(v.value_double(), 2.5);
    int not_numeric = 0;
    change("abc");
    EXPECT_EQ(v.value_compare(&not_numeric), 0.0);
    EXPECT_EQ(not_numeric, 1);
    change("0");
    EXPECT_EQ(v.IsTrue(), 0);
    change("");
    EXPECT_EQ(v.IsNULL(), 1);
    change("once");
    EXPECT_EQ(v.IsNULL(), 0);
    change("text");
    EXPECT_EQ(Text(v), "text");
    change("copied");
    Variable target("target", -1);
    target.SetValue(v);
    EXPECT_EQ(Text(target), "copied");
    change("again");
    Variable constructed(v);
    EXPECT_EQ(Text(constructed), "again");
    change("element");
    Variable parent("parent", -1);
    parent.SetElement(AggregateIndex(1), &v);
    Variable deep(parent);
    EXPECT_EQ(Text(deep), "element");
  }
}

TEST_F(SpecialVariables, AssigningTheCharacterSetTellsUTF8) {
  Get("zeph_charset").SetValue("ISO-8859-1", -1);
  EXPECT_EQ(application.CharacterSetIsUTF8(), 0);
  Get("zeph_charset").SetValue("UTF-8", -1);
  EXPECT_EQ(application.CharacterSetIsUTF8(), 1);
}

TEST_F(SpecialVariables, ANullStringReadsAsEmpty) {
  application.SetLanguage(String());
  EXPECT_EQ(Text(Get("zeph_language")), "");
}

// --- Clones --------------------------------------------------------------------------------------

TEST_F(SpecialVariables, AClonedVariableAsksItsOwnApplication) {
  CountingApplication task;
  for (const TextSetting& s : text_settings) {
    SCOPED_TRACE(s.name);
    Get(s.name).SetValue("request", -1);
    (task.*s.set)(String("task", -1));
    Variable* clone = Get(s.name).Clone(&task);
    EXPECT_STREQ(clone->name().data, s.name);
    EXPECT_EQ(Text(*clone), "task");
    clone->SetValue("changed", -1);
    EXPECT_STREQ((task.*s.get)().data, "changed");
    EXPECT_EQ(Text(Get(s.name)), "request");
    clone->DecRefCount();
  }
  const auto clone = [&](const char* name) { return VariableRef(Get(name).Clone(&task)); };
  application.remaining = 5;
  task.remaining = 6;
  EXPECT_EQ(clone("dyn_time_remaining")->value_integer(), 6);
  task.ssl = 1;
  EXPECT_EQ(Get("zeph_sslavailable").value_integer(), 0);
  EXPECT_EQ(clone("zeph_sslavailable")->value_integer(), 1);
  task.process = "task";
  EXPECT_EQ(Text(*clone("process_name")), "task");
  EXPECT_EQ(clone("dyn_stm_mon")->type(), VariableComputedText);
  EXPECT_GT(clone("dyn_time_t")->value_integer(), 1700000000);
  task.config()->SetValue_Integer(Config_timeout_global, 17);
  const VariableRef setting(Setting("timeout_global").Clone(&task));
  EXPECT_EQ(setting->value_integer(), 17);
  EXPECT_STREQ(setting->name().data, "timeout_global");
  const VariableRef config = clone("zeph_config");
  EXPECT_EQ(config->Element(AggregateIndex("timeout_global", -1), 0)->value_integer(), 17);
  EXPECT_EQ(Setting("timeout_global").value_integer(), 90);
}

TEST_F(SpecialVariables, AWholeTableIsClonedForATask) {
  CountingApplication task;
  task.SetLanguage("fr");
  Dictionary names(dictionary);
  ClonedVariableHash copy(&task, &names, table);
  Variable* language = nullptr;
  ASSERT_TRUE(copy.Find(&language, "zeph_language", -1, 0));
  EXPECT_EQ(Text(*language), "fr");
}

// --- The process ---------------------------------------------------------------------------------

TEST_F(SpecialVariables, EncryptionIsAskedForOnce) {
  EXPECT_EQ(application.asked_for_ssl, 0);
  application.ssl = 1;
  Variable& v = Get("zeph_sslavailable");
  EXPECT_EQ(v.IsTrue(), 1);
  EXPECT_EQ(Text(v), "1");
  application.ssl = 0;
  EXPECT_EQ(v.value_integer(), 1);
  EXPECT_EQ(v.value_double(), 1.0);
  int not_numeric = 1;
  EXPECT_EQ(v.value_compare(&not_numeric), 1.0);
  EXPECT_EQ(not_numeric, 0);
  EXPECT_EQ(v.type(), VariableStored);
  EXPECT_EQ(application.asked_for_ssl, 1);
}

TEST_F(SpecialVariables, WithoutEncryptionTheAnswerIsZero) {
  TestApplication plain;
  SSLAvailableVariable v("zeph_sslavailable", &plain);
  EXPECT_EQ(v.IsNULL(), 0);
  EXPECT_EQ(v.value_integer(), 0);
  EXPECT_EQ(Text(v), "0");
}

TEST_F(SpecialVariables, TheProcessHasAName) {
  EXPECT_EQ(Text(Get("process_name")), "zeph: testing");
  EXPECT_EQ(Get("process_name").primary_type(), PrimaryText);
  application.process = nullptr;
  EXPECT_EQ(Text(Get("process_name")), "");
  EXPECT_EQ(Get("process_name").IsNULL(), 1);
}

// --- Settings ------------------------------------------------------------------------------------

TEST_F(SpecialVariables, EverySettingThatIsForScriptsIsAMember) {
  Variable& all = Get("zeph_config");
  EXPECT_EQ(all.aggregatetype(), AggregateStructure);
  EXPECT_EQ(all.ElementsUsed(), 41 + 6);
  EXPECT_EQ(all.Member("memory_limit", 12, 0), nullptr);
  for (const ConfigSetting& s : config_settings) {
    SCOPED_TRACE(s.name);
    if (s.id & ConfigKind_Hidden) continue;
    Variable& v = Setting(s.name);
    EXPECT_STREQ(v.name().data, s.name);
    int not_numeric = 7;
    if (s.id & ConfigKind_Integer) {
      EXPECT_EQ(v.type(), VariableComputedInteger);
      EXPECT_EQ(v.value_integer(), s.default_integer);
      EXPECT_EQ(v.value_double(), static_cast<double>(s.default_integer));
      EXPECT_EQ(Text(v), std::to_string(s.default_integer));
      EXPECT_EQ(v.value_compare(&not_numeric), static_cast<double>(s.default_integer));
      EXPECT_EQ(not_numeric, 0);
      EXPECT_EQ(v.IsNULL(), 0);
    } else {
      EXPECT_EQ(v.type(), VariableComputedText);
      EXPECT_EQ(Text(v), s.default_text ? s.default_text : "");
      EXPECT_EQ(v.value_integer(), 0);
      EXPECT_EQ(v.value_double(), 0.0);
      EXPECT_EQ(v.value_compare(&not_numeric), 0.0);
      EXPECT_EQ(not_numeric, 1);
      EXPECT_EQ(v.IsNULL(), s.default_text == nullptr);
    }
  }
}

TEST_F(SpecialVariables, ASettingShowsWhatItIsNow) {
  application.config()->SetValue_Integer(Config_timeout_global, 12);
  EXPECT_EQ(Text(Setting("TIMEOUT_GLOBAL")), "12");
  application.config()->SetValue(Config_dir_temp, "/somewhere", -1, 0);
  EXPECT_EQ(Text(Setting("dir_temp")), "/somewhere");
  // A text that looks like a number is still a text.
  application.config()->SetValue(Config_dir_temp, "42", -1, 0);
  EXPECT_EQ(Setting("dir_temp").value_integer(), 0);
}

TEST_F(SpecialVariables, WhatEverIsAskedForFirstTheSettingsAreThere) {
  const struct {
    const char* label;
    bool (*read)(Variable&);
  } reads[] = {
      {"aggregatetype", [](Variable& v) { return v.aggregatetype() == AggregateStructure; }},
      {"aggregateelements", [](Variable& v) { return v.aggregateelements() != nullptr; }},
      {"IsNULL", [](Variable& v) { return v.IsNULL() == 0; }},
      {"IsTrue", [](Variable& v) { return v.IsTrue() == 1; }},
      {"ElementsUsed", [](Variable& v) { return v.ElementsUsed() > 40; }},
      {"value", [](Variable& v) { return v.value().length > 40; }},
      {"Max", [](Variable& v) { return v.Max() == -1; }},
      {"Element by a path",
       [](Variable& v) {
         List<AggregateIndex> path(1);
         path.Insert(new AggregateIndex("cookies", -1), ListTail);
         return v.Element(&path, 0) && v.Element(&path, 0)->value_integer() == 1;
       }},
      {"Element",
       [](Variable& v) { return v.Element(AggregateIndex("cookies", -1), 0) != nullptr; }},
      {"copy",
       [](Variable& v) {
         Variable copy(v);
         return copy.Element(AggregateIndex("cookies", -1), 0)->value_integer() == 1;
       }},
      {"value_compare",
       [](Variable& v) {
         int not_numeric = 0;
         v.value_compare(&not_numeric);
         return not_numeric == 1;
       }},
  };
  for (const auto& r : reads) {
    SCOPED_TRACE(r.label);
    ConfigurationAggregateVariable fresh("zeph_config", &application);
    EXPECT_TRUE(r.read(fresh));
  }
}

TEST_F(SpecialVariables, SettingsCannotBeWrittenByScripts) {
  Machine machine;
  machine.Assemble(
      "pushi 5\npushs zeph_config\npushc \"timeout_global\"\nmemb\nstore\n"
      "pushi 6\npushs zeph_config\npushc \"nothing\"\nmemb\nstore\n"
      "pushs zeph_config\npushc \"timeout_global\"\nmemb_readonly\nout\npushc \"|\"\nout\n"
      "pushs zeph_config\npushc \"nothing\"\nmemb_readonly\nout\npushc \"|\"\nout\n"
      "pushnc \"zeph_config:dir_user\"\nout");
  machine.system.SetLateVariables(NewSystemVariables(&machine.application));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "90||public_zix");
}

// --- Libraries -----------------------------------------------------------------------------------

class SpecialVariableLibraries : public SpecialVariables {
 protected:
  SpecialVariableLibraries() {
    application.SetLibraryManager(&loader);
    application.SetCommerceManager(&commerce);
    application.SetDatabaseManager(&databases);
    application.SetSystemLibraryManager(&system);
  }
  UNIXExternalLibraryManager loader;
  CommerceLibraryManager commerce{&application};
  ExternalDatabaseLibraryManager databases{&application};
  SystemLibraryManager system{&application};
};

const std::string loadable = InBuild("lib/test/");

TEST_F(SpecialVariableLibraries, AreListedInTheOrderOfRegistration) {
  commerce.RegisterDSO("zeta", "/nowhere");
  commerce.RegisterDSO("alpha", "/nowhere");
  databases.RegisterDSO("db", "/nowhere");
  Variable& list = Setting("commerce_list");
  EXPECT_EQ(list.Max(), 2);
  EXPECT_EQ(list.aggregatetype(), AggregateArray);
  EXPECT_EQ(list.ElementsUsed(), 2);
  EXPECT_EQ(list.Min(), 1);
  EXPECT_EQ(list.Next(1), 2);
  EXPECT_EQ(list.Previous(2), 1);
  EXPECT_EQ(list.IsNULL(), 0);
  EXPECT_EQ(Text(list), "zeta,alpha");
  EXPECT_EQ(Text(*list.Element(AggregateIndex(1), 0)), "zeta");
  EXPECT_EQ(list.Element(AggregateIndex(3), 0), nullptr);
  EXPECT_EQ(Text(Setting("database_list")), "db");
  EXPECT_EQ(Setting("systemlib_list").ElementsUsed(), 0);
}

TEST_F(SpecialVariableLibraries, WhateverIsAskedForFirstTheListIsThere) {
  commerce.RegisterDSO("one", "/nowhere");
  const struct {
    const char* label;
    bool (*read)(Variable&);
  } reads[] = {
      {"aggregatetype", [](Variable& v) { return v.aggregatetype() == AggregateArray; }},
      {"aggregateelements", [](Variable& v) { return v.aggregateelements() != nullptr; }},
      {"IsNULL", [](Variable& v) { return v.IsNULL() == 0; }},
      {"IsTrue", [](Variable& v) { return v.IsTrue() == 1; }},
      {"ElementsUsed", [](Variable& v) { return v.ElementsUsed() == 1; }},
      {"value", [](Variable& v) { return v.value().length == 3; }},
      {"Max", [](Variable& v) { return v.Max() == 1; }},
      {"Min", [](Variable& v) { return v.Min() == 1; }},
      {"Next", [](Variable& v) { return v.Next(0) == 1; }},
      {"Previous", [](Variable& v) { return v.Previous(9) == 1; }},
      {"CollapseElements", [](Variable& v) { return v.CollapseElements() == 1; }},
      {"Element", [](Variable& v) { return v.Element(AggregateIndex(1), 0) != nullptr; }},
  };
  for (const auto& r : reads) {
    SCOPED_TRACE(r.label);
    ConfigurationLibraryListVariable fresh("commerce_list", &application,
                                           ConfigurationLibrary_Commerce);
    EXPECT_TRUE(r.read(fresh));
  }
  ConfigurationLibraryListVariable unknown("x", &application,
                                           static_cast<_ConfigurationLibrary_Type>(3));
  EXPECT_EQ(unknown.ElementsUsed(), 0);
}

TEST_F(SpecialVariables, WithoutLibrariesTheListsAreEmpty) {
  for (const char* name : {"commerce_list", "database_list", "systemlib_list"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Setting(name).ElementsUsed(), 0);
    EXPECT_EQ(Setting(name).Max(), 0);
    EXPECT_EQ(Text(Setting(name)), "");
  }
  for (const char* name : {"commerce_lookup", "database_lookup", "systemlib_lookup"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Setting(name).Element(AggregateIndex("any", -1), 0)->value_integer(), 0);
  }
}

TEST_F(SpecialVariableLibraries, AreTriedWhenTheyAreLookedUp) {
  system.RegisterDSO("there", (loadable + "FakeLibrary.so").c_str());
  system.RegisterDSO("broken", "/nowhere/at/all.so");
  Variable& lookup = Setting("systemlib_lookup");
  Variable* there = lookup.Element(AggregateIndex("there", -1), 0);
  ASSERT_NE(there, nullptr);
  EXPECT_EQ(there->value_integer(), 1);
  EXPECT_EQ(there->primary_type(), PrimaryInteger);
  EXPECT_NE(system.libraries().Find("there", 5)->library(), nullptr);
  EXPECT_EQ(lookup.Element(AggregateIndex("THERE", -1), 0), there) << "the answer is kept";
  EXPECT_EQ(lookup.Element(AggregateIndex("broken", -1), 1)->value_integer(), 0);
  EXPECT_EQ(lookup.Element(AggregateIndex("unknown", -1), 1)->value_integer(), 0);
  EXPECT_EQ(lookup.Element(AggregateIndex("", 0), 1)->value_integer(), 0);
  EXPECT_EQ(Setting("commerce_lookup").Element(AggregateIndex("there", -1), 0)->value_integer(), 0);
  EXPECT_EQ(Setting("database_lookup").Element(AggregateIndex("there", -1), 0)->value_integer(), 0);
  EXPECT_EQ(lookup.Element(AggregateIndex(1), 0), nullptr);
  const Variable* missing = lookup.Element(AggregateIndex(1), 1);
  ASSERT_NE(missing, nullptr);
  EXPECT_EQ(lookup.Element(AggregateIndex(2), 1), missing) << "as in any value that cannot change";
}

TEST_F(SpecialVariableLibraries, EachKindIsLookedUpAmongItsOwn) {
  commerce.RegisterDSO("pay", (loadable + "FakeCommerceFunctions.so").c_str());
  system.RegisterDSO("tools", (loadable + "FakeLibrary.so").c_str());
  const struct {
    const char* lookup;
    int pay, tools;
  } rows[] = {{"commerce_lookup", 1, 0}, {"database_lookup", 0, 0}, {"systemlib_lookup", 0, 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lookup);
    Variable& lookup = Setting(row.lookup);
    EXPECT_EQ(lookup.Element(AggregateIndex("pay", -1), 0)->value_integer(), row.pay);
    EXPECT_EQ(lookup.Element(AggregateIndex("tools", -1), 0)->value_integer(), row.tools);
  }
}

// A copy for a task has the libraries of the task's application, and has to find them again.
TEST_F(SpecialVariableLibraries, ACloneAsksTheLibrariesOfItsOwnApplication) {
  commerce.RegisterDSO("pay", (loadable + "FakeCommerceFunctions.so").c_str());
  EXPECT_EQ(Text(Setting("commerce_list")), "pay");
  EXPECT_EQ(Setting("commerce_lookup").Element(AggregateIndex("other", -1), 0)->value_integer(), 0);
  CountingApplication task;
  CommerceLibraryManager others(&task);
  task.SetLibraryManager(&loader);
  task.SetCommerceManager(&others);
  others.RegisterDSO("other", (loadable + "FakeCommerceFunctions.so").c_str());
  const VariableRef list(Setting("commerce_list").Clone(&task));
  EXPECT_EQ(Text(*list), "other");
  const VariableRef lookup(Setting("commerce_lookup").Clone(&task));
  EXPECT_EQ(lookup->Element(AggregateIndex("other", -1), 0)->value_integer(), 1);
  EXPECT_EQ(lookup->Element(AggregateIndex("pay", -1), 0)->value_integer(), 0);
}

TEST_F(SpecialVariableLibraries, ScriptsLookThemUpByPath) {
  Machine machine;
  machine.application.SetLibraryManager(&loader);
  machine.application.SetSystemLibraryManager(&system);
  system.RegisterDSO("there", (loadable + "FakeLibrary.so").c_str());
  machine.Assemble(
      "pushnc \"zeph_config:systemlib_lookup:there\"\nout\n"
      "pushnc \"zeph_config:systemlib_lookup:missing\"\nout\n"
      "pushnc \"zeph_config:systemlib_list[1]\"\nout");
  machine.system.SetLateVariables(NewSystemVariables(&machine.application));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "10there");
}

TEST(SpecialVariableScript, ALanguageThatIsAssignedCountsForTheNextText) {
  Machine machine;
  machine.Assemble(
      ".language \"en-US\"\n.message hi \"Hi \"\n.language de\n.message hi \"Hallo \"\n"
      "localize hi\npushc \"de\"\npops zeph_language\nlocalize hi\npushs zeph_language\nout\n"
      "pushc \"d\"\npushc \"e\"\ncat\npushs zeph_language\ncmp\nout\n"
      "pushc \"en-US\"\npopnc zeph_language\nlocalize hi");
  machine.system.SetLateVariables(NewSystemVariables(&machine.application));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "Hi Hallo de0Hi ");
}

}  // namespace
