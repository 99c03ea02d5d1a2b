// Tables that the engine has made from a specification, changed and packed, as programs of other
// makers read them.

#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/XBaseMachine.h"

namespace {

class XBaseOtherMakersTest : public XBaseMachine {
 protected:
  std::string ReadBy(const std::string& script) {
    for (const char* name : {"t.dbf", "t.dbt"}) directory.File(name, files.files[name]);
    Command command(
        {"/usr/bin/python3", InSource("tests/support/xbase/") + script, directory.path("t.dbf")});
    command.directory = directory.path();
    command.environment["PYTHONDONTWRITEBYTECODE"] = "1";
    command.environment["LC_ALL"] = "C.UTF-8";
    EXPECT_EQ(command.Run(), 0) << command.errors;
    return command.output;
  }

  TemporaryDirectory directory;
};

TEST_F(XBaseOtherMakersTest, ReadATableBeforeAndAfterAPack) {
  ASSERT_TRUE(CreateTable("name char(10), amount number(5.2), day date, paid bool, note memo"));
  ASSERT_TRUE(Add({{"name", "Ann"},
                   {"amount", "12.5"},
                   {"day", "20240131"},
                   {"paid", "1"},
                   {"note", "first memo\nline two"}}));
  ASSERT_TRUE(Add({{"name", "Bob"},
                   {"amount", "-3"},
                   {"day", "20231231"},
                   {"paid", "0"},
                   {"note", std::string(600, 'x')}}));
  ASSERT_TRUE(Add({{"name", "Cid"}, {"note", "short"}}));
  ASSERT_TRUE(Go(3));
  Set("note", std::string(700, 'y'));
  ASSERT_TRUE(view().Update());
  const std::string ann = "|Ann|12.50|20240131|T|19|first memo/l\n";
  const std::string bob = "|Bob|-3.00|20231231|F|600|xxxxxxxxxxxx\n";
  const std::string cid = "|Cid|-3.00|20231231|F|700|yyyyyyyyyyyy\n";
  EXPECT_EQ(ReadBy("dbf_read.py"), ann + bob + cid);
  EXPECT_EQ(ReadBy("dbfread_read.py"), ann + bob + cid);
  ASSERT_TRUE(Go(2));
  ASSERT_TRUE(view().Delete());
  EXPECT_EQ(ReadBy("dbf_read.py"), ann + "*" + bob + cid);
  ASSERT_TRUE(database->Pack()) << Error();
  EXPECT_EQ(ReadBy("dbf_read.py"), ann + cid);
  EXPECT_EQ(ReadBy("dbfread_read.py"), ann + cid);
}

}  // namespace
