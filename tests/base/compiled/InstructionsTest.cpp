#include "base/compiled/Instructions.h"

#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

// The encoding of existing compiled files: word, name, and whether a listing shows the name.
const struct {
  unsigned short word;
  const char* name;
  bool listed;
} encoding[] = {
    {0x0000, "noop", true},
    {0x4001, "pushc", true},
    {0x4002, "pushi", true},
    {0x8003, "pushf", true},
    {0x4004, "pushs", true},
    {0x4005, "pushg", true},
    {0x4006, "pushl", true},
    {0x0007, "pushd", true},
    {0x5008, "pushdc", true},
    {0x0009, "pushn", true},
    {0x400A, "pushnc", true},
    {0x000B, "pop", true},
    {0x400C, "pops", true},
    {0x400D, "popg", true},
    {0x400E, "popl", true},
    {0x000F, "popd", true},
    {0x5010, "popdc", true},
    {0x0011, "popn", true},
    {0x4012, "popnc", true},
    {0x0013, "spush", true},
    {0x0014, "spop", true},
    {0x0015, "out", true},
    {0x0016, "add", true},
    {0x0017, "sub", true},
    {0x0018, "cat", true},
    {0x0019, "bitand", true},
    {0x001A, "bitor", true},
    {0x001B, "bitxor", true},
    {0x001C, "bitoc", true},
    {0x001D, "bitsl", true},
    {0x001E, "bitsr", true},
    {0x001F, "div", true},
    {0x0020, "mul", true},
    {0x0021, "mod", true},
    {0x0022, "rounds", true},
    {0x0023, "crypt", true},
    {0x0024, "pow", true},
    {0x0025, "roundf", true},
    {0x4025, "jmp", true},
    {0x4026, "jmp_eq", true},
    {0x4027, "jmp_lt", true},
    {0x4028, "jmp_gt", true},
    {0x4029, "jmp_le", true},
    {0x402A, "jmp_ge", true},
    {0x402B, "jmp_ne", true},
    {0x002C, "cmp", true},
    {0x002D, "and", true},
    {0x002E, "or", true},
    {0x002F, "in", true},
    {0x0030, "cin", true},
    {0x0031, "ein", true},
    {0x0032, "ecin", true},
    {0x0033, "eq", true},
    {0x0034, "ne", true},
    {0x0035, "ge", true},
    {0x0036, "le", true},
    {0x0037, "lt", true},
    {0x0038, "gt", true},
    {0x0039, "not", true},
    {0x003A, "dup", true},
    {0x003B, "ret", true},
    {0x003C, "retn", true},
    {0x403D, "call", true},
    {0x003E, "elem", true},
    {0x003F, "elem_readonly", false},
    {0x0040, "memb", true},
    {0x0041, "memb_readonly", false},
    {0x0042, "store", true},
    {0x0043, "exit", true},
    {0x4044, "lineno", true},
    {0x0045, "op_do_file", true},
    {0x0046, "op_do_function", true},
    {0x0047, "hide", true},
    {0x0048, "lockfile", true},
    {0x0049, "lockfile_end", true},
    {0x404A, "sourcefile", true},
    {0x504B, "tagerror", true},
    {0x404C, "erroutput", true},
    {0x404D, "poplvnc", true},
    {0x404E, "localize", true},
    {0x404F, "localizev", true},
    {0x4050, "stdoutput", true},
    {0x0051, "out_comp", true},
    {0x0052, "op_errmsg", false},
    {0x4053, "poprg", false},
    {0x4054, "poprl", false},
    {0x0055, "poprn", false},
    {0x4056, "poprnc", false},
    {0x0057, "refer", true},
    {0x0058, "capture", false},
    {0x0059, "capture_end", false},
    {0x005A, "isnull", true},
    {0x005B, "swap", false},
    {0x505C, "swapn", false},
    {0x4101, "import", true},
    {0x4102, "importf", true},
    {0x4103, "import_loop", true},
    {0x4104, "import_stop", true},
    {0x0105, "export", true},
    {0x4106, "pop3", true},
    {0x4107, "pop3loop", true},
    {0x0108, "pop3delete", true},
    {0x4109, "pop3stop", true},
    {0x410A, "op_smtp", true},
    {0x010B, "op_smtp_end", true},
    {0x410C, "op_http", true},
    {0x410D, "op_http_loop", true},
    {0x410E, "op_http_stop", true},
    {0x410F, "op_commerce", true},
    {0x4110, "op_commerce_loop", true},
    {0x4111, "op_commerce_stop", true},
    {0x4112, "op_http8", false},
    {0x5113, "op_httpn", false},
    {0x5114, "op_smtpn", false},
    {0x4115, "async", false},
    {0x0116, "exit2", false},
    {0x0200, "dbopen", true},
    {0x0201, "dbclose", true},
    {0x0202, "dbskip", true},
    {0x0203, "dbgo", true},
    {0x0204, "dbadd", true},
    {0x0205, "dbupdate", true},
    {0x0206, "dbdelete", true},
    {0x0207, "dbundelete", true},
    {0x0208, "dbprimary", true},
    {0x0209, "dbfind", true},
    {0x020A, "dbsetindex", true},
    {0x020B, "dbmakeindex", true},
    {0x020C, "dbpack", true},
    {0x020D, "dbreindex", true},
    {0x020E, "dbcreate", true},
    {0x0210, "dbopenview", true},
    {0x0211, "dbcloseview", true},
    {0x0212, "dbquery", true},
    {0x0213, "dbfilter", true},
    {0x0214, "dbrevealstructuredb", true},
    {0x0215, "dbrevealstructureagg", true},
    {0x0216, "dbopen1", false},
    {0x0217, "dbcommit", false},
    {0x0218, "dbrollback", false},
    {0x0219, "dbtransaction", false},
    {0x021A, "dbcommand", false},
    {0x5301, "cmpgg", true},
    {0x5302, "cmpgi", true},
    {0x5303, "incg", true},
    {0x5304, "modgg", true},
    {0x5305, "storegi", true},
};

TEST(Instructions, TheListHoldsTheWholeEncodingAndNothingElse) {
  EXPECT_EQ(Instruction::RowCount, static_cast<int>(std::size(encoding)));
  for (const auto& expected : encoding) {
    SCOPED_TRACE(expected.name);
    const Instruction::Row* row = Instruction::Find(expected.word);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->word, expected.word);
    EXPECT_STREQ(row->name, expected.name);
    EXPECT_EQ(row->listed, expected.listed);
  }
}

TEST(Instructions, EveryOtherWordIsNoInstruction) {
  std::set<int> known;
  for (const auto& expected : encoding) known.insert(expected.word);
  for (int word = 0; word <= 0xFFFF; word++) {
    if (known.count(word)) continue;
    ASSERT_EQ(Instruction::Find(static_cast<unsigned short>(word)), nullptr) << word;
  }
}

TEST(Instructions, EveryNameFindsItsOwnRow) {
  for (const auto& expected : encoding) {
    SCOPED_TRACE(expected.name);
    const Instruction::Row* row = Instruction::Find(expected.name, -1);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->word, expected.word);
  }
}

TEST(Instructions, NamesAreFoundByLengthAndByCase) {
  EXPECT_EQ(Instruction::Find("popgarbage", 4)->word, Instruction::popg);
  EXPECT_EQ(Instruction::Find("popgarbage", -1), nullptr);
  EXPECT_EQ(Instruction::Find("POP", -1), nullptr);
  EXPECT_EQ(Instruction::Find("", 0), nullptr);
}

TEST(Instructions, TheEnumeratorsAreTheWords) {
  EXPECT_EQ(Instruction::pushc, 0x4001);
  EXPECT_EQ(Instruction::pushf, 0x8003);
  EXPECT_EQ(Instruction::op_and, 45);
  EXPECT_EQ(Instruction::exit, 67);
  EXPECT_EQ(Instruction::exit2, 278);
  EXPECT_EQ(Instruction::dbopen, 512);
  EXPECT_EQ(Instruction::dbopen1, 534);
  EXPECT_EQ(Instruction::storegi, 0x5305);
}

TEST(Instructions, TheTopBitsTellTheOperands) {
  const struct {
    unsigned short word;
    int first;
    int second;
  } cases[] = {
      {0x0000, 0, 0}, {0x0FFF, 0, 0}, {0x4001, 4, 0}, {0x5008, 4, 4}, {0x6001, 4, 8},
      {0x7001, 4, 0}, {0x8003, 8, 0}, {0x9003, 8, 4}, {0xA003, 8, 8}, {0xB003, 8, 0},
      {0xC001, 0, 0}, {0xD001, 0, 4}, {0xE001, 0, 8}, {0xF001, 0, 0}, {0x1001, 0, 4},
      {0x2001, 0, 8}, {0x3001, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.word);
    EXPECT_EQ(Instruction::FirstOperandSize(c.word), c.first);
    EXPECT_EQ(Instruction::SecondOperandSize(c.word), c.second);
  }
}

TEST(Instructions, JumpsAndLoopsTakeDistances) {
  for (const char* name :
       {"jmp", "jmp_eq", "jmp_ne", "import", "import_loop", "pop3", "op_smtp", "op_smtpn",
        "op_http", "op_http8", "op_httpn", "op_http_loop", "op_commerce_stop", "async"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Instruction::Find(name, -1)->first, Instruction::Operand::Distance);
  }
}

TEST(Instructions, RowsGiveThemInTheOrderOfTheList) {
  EXPECT_STREQ(Instruction::Rows[0].name, "noop");
  EXPECT_STREQ(Instruction::Rows[Instruction::RowCount - 1].name, "storegi");
}

// What each instruction takes off the stack and puts on it, written by hand.
TEST(Instructions, TheCountsOfAnEffectAreItsEntries) {
  const struct {
    int taken;
    int put;
    std::vector<const char*> names;
  } cases[] = {
      {0,
       0,
       {"noop",
        "swapn",
        "spush",
        "spop",
        "jmp",
        "retn",
        "exit",
        "exit2",
        "lineno",
        "sourcefile",
        "tagerror",
        "erroutput",
        "stdoutput",
        "localize",
        "capture_end",
        "lockfile_end",
        "import_loop",
        "import_stop",
        "op_http_loop",
        "op_http_stop",
        "op_smtp_end",
        "async",
        "incg",
        "storegi",
        "pop3loop",
        "pop3stop",
        "pop3delete",
        "op_commerce_loop",
        "op_commerce_stop"}},
      {0,
       1,
       {"pushc", "pushi", "pushf", "pushs", "pushg", "pushl", "pushnc", "pushdc", "localizev",
        "cmpgg", "cmpgi", "modgg"}},
      {1, 0, {"pop",    "pops",      "popg",       "popl",       "popdc",        "poprnc",
              "poprg",  "poprl",     "jmp_eq",     "jmp_lt",     "jmp_gt",       "jmp_le",
              "jmp_ge", "jmp_ne",    "ret",        "out",        "out_comp",     "op_errmsg",
              "hide",   "poplvnc",   "op_do_file", "capture",    "lockfile",     "dbclose",
              "dbpack", "dbreindex", "dbcommit",   "dbrollback", "dbtransaction"}},
      {1, 1, {"pushn", "bitoc", "not", "isnull"}},
      {1, 2, {"dup"}},
      {2,
       0,
       {"store", "refer", "poprn", "dbadd", "dbupdate", "dbdelete", "dbundelete", "dbcloseview"}},
      {2,
       1,
       {"pushd",
        "elem",
        "elem_readonly",
        "memb",
        "memb_readonly",
        "add",
        "sub",
        "mul",
        "div",
        "mod",
        "pow",
        "cat",
        "bitand",
        "bitor",
        "bitxor",
        "bitsl",
        "bitsr",
        "rounds",
        "roundf",
        "crypt",
        "cmp",
        "eq",
        "ne",
        "ge",
        "le",
        "lt",
        "gt",
        "and",
        "or",
        "in",
        "cin",
        "ein",
        "ecin",
        "op_do_function"}},
      {2, 2, {"swap"}},
      {3,
       0,
       {"popd", "import", "export", "op_commerce", "dbskip", "dbgo", "dbprimary", "dbsetindex",
        "dbfilter", "dbquery", "dbrevealstructuredb", "dbrevealstructureagg", "dbcommand"}},
      {4, 0, {"pop3", "importf", "dbfind", "dbmakeindex", "dbcreate", "dbopenview"}},
      {5, 0, {"op_http", "op_smtp"}},
      {6, 0, {"dbopen"}},
      {7, 0, {"dbopen1"}},
      {8, 0, {"op_http8"}},
  };
  std::set<std::string> counted = {"popn", "popnc", "call", "op_httpn", "op_smtpn"};
  for (const auto& c : cases) {
    for (const char* name : c.names) {
      SCOPED_TRACE(name);
      const Instruction::StackEffect& effect = Instruction::Find(name, -1)->stack;
      EXPECT_EQ(effect.taken, c.taken);
      EXPECT_EQ(effect.least_put, c.put);
      EXPECT_EQ(effect.most_put, c.put);
      EXPECT_FALSE(effect.takes_more);
      counted.insert(name);
    }
  }
  for (int i = 0; i < Instruction::RowCount; i++) {
    const Instruction::Row& row = Instruction::Rows[i];
    EXPECT_EQ(counted.count(row.name), row.run == Instruction::Run::Absent ? 0u : 1u) << row.name;
  }
}

TEST(Instructions, AnEffectThatVariesSaysSo) {
  const Instruction::StackEffect& popn = Instruction::Find("popn", -1)->stack;
  EXPECT_EQ(popn.taken, 2);
  EXPECT_EQ(popn.least_put, 0);
  EXPECT_EQ(popn.most_put, 1);
  const Instruction::StackEffect& popnc = Instruction::Find("popnc", -1)->stack;
  EXPECT_EQ(popnc.taken, 1);
  EXPECT_EQ(popnc.least_put, 0);
  EXPECT_EQ(popnc.most_put, 1);
  const Instruction::StackEffect& call = Instruction::Find("call", -1)->stack;
  EXPECT_TRUE(call.takes_more);
  EXPECT_EQ(call.least_put, 1);
}

// The hot loop calls these from the middle of decoded code.
TEST(Instructions, TheseHandlersAreForTheHotLoopToo) {
  std::set<std::string> found;
  for (int i = 0; i < Instruction::RowCount; i++) {
    const Instruction::Row& row = Instruction::Rows[i];
    if (row.run == Instruction::Run::HotHandler) found.insert(row.name);
  }
  EXPECT_EQ(found, (std::set<std::string>{
                       "out",    "out_comp", "popdc", "pushdc", "rounds", "roundf", "isnull",
                       "in",     "cin",      "ein",   "ecin",   "pow",    "bitand", "bitor",
                       "bitxor", "bitoc",    "bitsl", "bitsr",  "and",    "or",     "not",
                       "refer",  "poprg",    "poprl", "cmpgg",  "modgg"}));
}

}  // namespace
