// Every failure that a client can see before its script runs, word by word.

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/e2e/Pages.h"
#include "tests/support/Paths.h"
#include "tools/Assembler.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char loading[] = "Error loading configuration library: ";
constexpr char corrupt[] = "File is either corrupt or not a valid compiled Zeph Script file";

std::string FaultyLibrary() {
  return InBuild("lib/test/FaultyConfiguration.so");
}

class FailurePages : public testing::Test {
 protected:
  FailurePages() { engine.Script("page.zpc", Writes("page")); }

  // One request for page.zpc to an engine that this function starts.
  FastCGIResponse Page(const FastCGIParameters& more = {}) {
    EXPECT_TRUE(engine.Start());
    return engine.Get("/page.zpc", more);
  }

  FastCGIResponse PageWithFault(const std::string& fault) {
    engine.name_library = false;
    engine.environment["ZEPH_TEST_FAULT"] = fault;
    engine.environment["ZEPH_TEST_ROOT"] = engine.Path("");
    return Page({{"ZpCONFIG_LIBRARY", FaultyLibrary()}});
  }

  // A copy of the configuration library that belongs to another user.
  std::string ForeignLibrary(const std::string& name) {
    std::string path = engine.Path(name);
    std::filesystem::copy_file(EngineProcess::ConfigurationLibrary(), path);
    EXPECT_EQ(chown(path.c_str(), 65534, 65534), 0) << "this test is run by root";
    return path;
  }

  EngineProcess engine;
};

TEST_F(FailurePages, NoConfigurationLibrary) {
  engine.name_library = false;
  ExpectFailure(Page(), ConfigurationErrorPage(std::string(loading) +
                                               "Unable to locate/load libzephconfig.so"));
}

TEST_F(FailurePages, ANamedLibraryThatDoesNotExist) {
  engine.name_library = false;
  ExpectFailure(
      Page({{"ZpCONFIG_LIBRARY", engine.Path("nowhere.so")}}),
      ConfigurationErrorPage(std::string(loading) + "Unable to locate/load libzephconfig.so"));
}

TEST_F(FailurePages, TheLibraryIsAskedForInTheRequestAndNotInTheEnvironment) {
  engine.name_library = false;
  engine.environment["ZpCONFIG_LIBRARY"] = EngineProcess::ConfigurationLibrary();
  ExpectFailure(Page(), ConfigurationErrorPage(std::string(loading) +
                                               "Unable to locate/load libzephconfig.so"));
}

TEST_F(FailurePages, ALibraryOfAnotherOwner) {
  engine.name_library = false;
  ExpectFailure(Page({{"ZpCONFIG_LIBRARY", ForeignLibrary("foreign.so")}}),
                ConfigurationErrorPage(std::string(loading) + "UID mismatch"));
}

TEST_F(FailurePages, ALibraryOfAnotherOwnerInTheWorkingDirectory) {
  ForeignLibrary("work/libzephconfig.so");
  ExpectFailure(Page(), ConfigurationErrorPage(std::string(loading) + "UID mismatch"));
}

TEST_F(FailurePages, TheLibraryInTheWorkingDirectoryIsTakenFirst) {
  engine.Write("work/libzephconfig.so", "no library at all");
  FastCGIResponse response = Page();
  EXPECT_THAT(response.Body(), AllOf(StartsWith(std::string("Configuration Error: ") + loading),
                                     HasSubstr("work/libzephconfig.so")));
  EXPECT_FALSE(response.HasHeader("Content-Length"));
}

TEST_F(FailurePages, ALibraryWithoutTheFunction) {
  engine.name_library = false;
  FastCGIResponse response = Page({{"ZpCONFIG_LIBRARY", InBuild("lib/test/FakeEmpty.so")}});
  EXPECT_THAT(response.Body(), AllOf(StartsWith(std::string("Configuration Error: ") + loading),
                                     HasSubstr("zeph_config_library")));
}

TEST_F(FailurePages, ALibraryThatFails) {
  struct Case {
    const char* fault;
    std::string text;
  };
  const Case cases[] = {
      {"no table", std::string(loading) + "Unable to retrieve configuration descriptor table"},
      {"initialize", std::string(loading) + "the test's own words"},
      {"initialize silently", std::string(loading) + "Error initializing configuration library"},
      {"script", "the test's own words"},
      {"script silently", "Error loading script-specific configuration"},
      {"version 1",
       "Configuration library uses no longer supported v1 API script-specific configuration load "
       "method"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.fault);
    EngineProcess other;
    other.Script("page.zpc", Writes("page"));
    other.name_library = false;
    other.environment["ZEPH_TEST_FAULT"] = each.fault;
    other.environment["ZEPH_TEST_ROOT"] = other.Path("");
    ASSERT_TRUE(other.Start());
    ExpectFailure(other.Get("/page.zpc", {{"ZpCONFIG_LIBRARY", FaultyLibrary()}}),
                  ConfigurationErrorPage(each.text));
  }
}

TEST_F(FailurePages, TheSameLibraryWithoutAFaultServes) {
  ExpectPage(PageWithFault("none"), "page");
}

TEST_F(FailurePages, DirectoriesThatAreSetAgainStayWhatTheyWereForTheRequest) {
  ExpectPage(PageWithFault("directories again"), "page");
}

TEST_F(FailurePages, ABrokenConfigurationFileIsToldWithItsLine) {
  engine.configuration = "dir_zeph = \"/srv\"\ncookies = [\n";
  EXPECT_THAT(Page().Body(), StartsWith(std::string("Configuration Error: ") + loading +
                                        engine.Path("zeph.toml") + ":"));
}

TEST_F(FailurePages, AnUnknownKeyIsToldWithTheNearestKnownOne) {
  engine.settings = "cookie = 1\n";
  EXPECT_THAT(Page().Body(), AllOf(HasSubstr(engine.Path("zeph.toml") + ":4: cookie: "),
                                   HasSubstr("\"cookies\"")));
}

TEST_F(FailurePages, DirectoriesThatAreNotSetOrNotUsable) {
  struct Case {
    const char* label;
    std::string configuration;
    const char* text;
  };
  EngineProcess place;  // for the names of existing folders
  place.Script("page.zpc", Writes("page"));
  std::string scripts = "dir_zeph = \"" + place.Path("scripts") + "\"\n";
  std::string data = "dir_data = \"" + place.Path("data") + "\"\n";
  const Case cases[] = {
      {"no script root", data, "zephroot is not defined"},
      {"relative script root", "dir_zeph = \"scripts\"\n" + data,
       "The configured script directory is not an absolute path"},
      {"missing script root", "dir_zeph = \"" + place.Path("nowhere") + "\"\n" + data,
       "The configured script directory does not exist"},
      {"relative temporary directory", scripts + data + "dir_temp = \"temp\"\n",
       "The configured temporary directory is not an absolute path"},
      {"missing temporary directory", scripts + data + "dir_temp = \"/nowhere\"\n",
       "The configured temporary directory does not exist"},
      {"no data directory", scripts, "No data directory is defined"},
      {"relative data directory", scripts + "dir_data = \"data\"\n",
       "The configured data directory is not an absolute path"},
      {"missing data directory", scripts + "dir_data = \"/nowhere\"\n",
       "The configured data directory does not exist"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.label);
    EngineProcess other;
    other.configuration = each.configuration;
    ASSERT_TRUE(other.Start());
    ExpectFailure(other.Get("/page.zpc"), ConfigurationErrorPage(each.text));
  }
}

TEST_F(FailurePages, AScriptRootThatIsALinkIsRefused) {
  std::filesystem::create_symlink(engine.Path("scripts"), engine.Path("link"));
  engine.configuration = "dir_zeph = \"" + engine.Path("link") + "\"\ndir_data = \"/tmp\"\n";
  ExpectFailure(
      Page(), ConfigurationErrorPage("The configured script directory references a symbolic link"));
}

TEST_F(FailurePages, WithoutATemporaryDirectoryEverythingRuns) {
  engine.configuration =
      "dir_zeph = \"" + engine.Path("scripts") + "\"\ndir_data = \"" + engine.Path("data") + "\"\n";
  ExpectPage(Page(), "page");
}

TEST_F(FailurePages, TheAdministratorIsNamedAsConfigured) {
  engine.configuration = "info_serveradmin = \"ops@example.org\"\n";
  EXPECT_EQ(Page().Body(),
            "Configuration Error: zephroot is not defined<br>"
            "Please contact the server administrator: ops@example.org");
}

TEST_F(FailurePages, AnEmptyAdministratorCountsAsSet) {
  engine.configuration = "info_serveradmin = \"\"\n";
  EXPECT_EQ(Page().Body(),
            "Configuration Error: zephroot is not defined<br>"
            "Please contact the server administrator: ");
}

TEST_F(FailurePages, NoCookieWhenTheConfigurationTurnsItOff) {
  engine.configuration = "cookies = 0\n";
  FastCGIResponse response = Page();
  EXPECT_FALSE(response.HasHeader("Set-Cookie"));
  EXPECT_EQ(response.Headers(), "Content-Type: text/html");
}

TEST_F(FailurePages, AScriptThatIsNotThere) {
  ASSERT_TRUE(engine.Start());
  ExpectFailure(engine.Get("/nowhere.zpc"),
                "Unable to execute 'nowhere.zpc': No such file or directory");
}

TEST_F(FailurePages, AScriptInAFolderThatIsNotThere) {
  ASSERT_TRUE(engine.Start());
  ExpectFailure(engine.Get("/no/where.zpc"),
                "Unable to execute 'no/where.zpc': The specified path references a directory that "
                "does not exist");
}

TEST_F(FailurePages, TheNameOfAMissingScriptIsEncoded) {
  ASSERT_TRUE(engine.Start());
  ExpectFailure(engine.Get("/<b>\"a'&(1)\".zpc"),
                "Unable to execute '&lt;b&gt;&quot;a'&amp;&#40;1&#41;&quot;.zpc': "
                "No such file or directory");
}

TEST_F(FailurePages, PathsOutsideOfTheScriptRoot) {
  engine.Write("outside.zpc", "");
  ASSERT_TRUE(engine.Start());
  for (const char* path : {"../outside.zpc", "a/../../outside.zpc"}) {
    SCOPED_TRACE(path);
    ExpectFailure(engine.Get((std::string("/") + path).c_str()),
                  std::string("Unable to execute '") + path +
                      "': The specified path references a path outside the configured script "
                      "directory");
  }
}

TEST_F(FailurePages, AnAbsolutePathIsOneBelowTheScriptRoot) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("//page.zpc"), "page");
}

TEST_F(FailurePages, AScriptThatIsALink) {
  std::filesystem::create_symlink("page.zpc", engine.Path("scripts/link.zpc"));
  ASSERT_TRUE(engine.Start());
  ExpectFailure(engine.Get("/link.zpc"),
                "Unable to execute 'link.zpc': The specified path references a symbolic link");
}

TEST_F(FailurePages, ALinkIsFollowedWhereTheConfigurationAllowsIt) {
  engine.settings = "flags_security = 1\n";
  std::filesystem::create_symlink("page.zpc", engine.Path("scripts/link.zpc"));
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/link.zpc"), "page");
}

TEST_F(FailurePages, APipeInPlaceOfAScriptDoesNotHoldTheRequestUp) {
  ASSERT_EQ(mkfifo(engine.Path("scripts/pipe.zpc").c_str(), 0600), 0);
  ASSERT_TRUE(engine.Start());
  FastCGIResponse response = engine.Get("/pipe.zpc");
  EXPECT_TRUE(response.ended) << response.problem;
  EXPECT_THAT(response.Body(), StartsWith("Unable to execute 'pipe.zpc': "));
}

TEST_F(FailurePages, APipeAnywhereElseDoesNotHoldTheRequestUpEither) {
  ASSERT_EQ(mkfifo(engine.Path("scripts/pipe.zpc").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(engine.Path("data/pipe").c_str(), 0600), 0);
  engine.settings = "log_file = \"pipe\"\nlog_level = 1073741824\n";
  engine.Script("do.zpc", "pushc \"pipe.zpc\"\nop_do_file\n");
  engine.Script("function.zpc", "pushc \"pipe.zpc\"\npushc \"f()\"\nop_do_function\n");
  engine.Script("export.zpc", "pushc \"pipe\"\npushc \",\"\npushc \"a\"\nexport\n");
  ASSERT_TRUE(engine.Start());
  for (const char* page : {"/do.zpc", "/function.zpc"}) {
    FastCGIResponse response = engine.Get(page);
    EXPECT_TRUE(response.ended) << response.problem;
    EXPECT_THAT(response.Body(), HasSubstr("Unable to open '"));
    EXPECT_THAT(response.Body(), HasSubstr(corrupt));
  }
  FastCGIResponse response = engine.Get("/export.zpc");
  EXPECT_TRUE(response.ended) << response.problem;
  EXPECT_THAT(response.Body(),
              HasSubstr("Unable to create file 'pipe': No such device or address"));
}

TEST_F(FailurePages, AnUnknownUser) {
  ASSERT_TRUE(engine.Start());
  ExpectFailure(engine.Get("/~nobodyhere/x.zpc"),
                ConfigurationErrorPage("Invalid user 'nobodyhere'"));
}

TEST_F(FailurePages, AUserWithoutAScriptFolder) {
  engine.settings = "dir_user = \"no-such-folder-here\"\n";
  ASSERT_TRUE(engine.Start());
  ExpectFailure(
      engine.Get("/~root/x.zpc"),
      ConfigurationErrorPage("The configured script directory for 'root' does not exist"));
}

TEST_F(FailurePages, FilesThatAreNoScripts) {
  std::string image, errors;
  ASSERT_TRUE(AssembleScript(Writes("x"), "x", &image, &errors)) << errors;
  std::string future = image, past = image, magic = image;
  future[4] = 0x0C;
  past[4] = 0;
  magic[0] = 'z';
  struct Case {
    const char* label;
    std::string bytes;
    const char* text;
  };
  const Case cases[] = {
      {"empty", "", corrupt},
      {"short", image.substr(0, 31), corrupt},
      {"text", "<p>This is no compiled script, but it is long enough.</p>", corrupt},
      {"magic", magic, corrupt},
      {"future", future,
       "File was generated by an incompatible version of the Zeph Script Compiler"},
      {"past", past, "File was generated by an incompatible version of the Zeph Script Compiler"},
      {"no directory", image.substr(0, image.size() - 1),
       "Unexpected end of file while reading directory"},
  };
  for (const Case& each : cases) engine.Write(std::string("scripts/") + each.label, each.bytes);
  ASSERT_TRUE(engine.Start());
  for (const Case& each : cases) {
    SCOPED_TRACE(each.label);
    ExpectFailure(engine.Get((std::string("/") + each.label).c_str()),
                  std::string("Unable to execute '") + each.label + "': " + each.text);
  }
}

TEST_F(FailurePages, TheNameOfACorruptScriptIsNotEncoded) {
  engine.Write("scripts/<i>.zpc", "");
  ASSERT_TRUE(engine.Start());
  ExpectFailure(engine.Get("/<i>.zpc"), std::string("Unable to execute '<i>.zpc': ") + corrupt);
}

TEST_F(FailurePages, ASectionThatCannotBeRead) {
  const char* const tags[] = {"dict", "syst", "glbl", "locl", "locd", "segs", "func"};
  for (const char* tag : tags) {
    engine.Script(std::string(tag) + ".zpc",
                  Writes("x") + ".section \"" + tag + "\"\n.hex \"ffffff7f\"\n");
  }
  ASSERT_TRUE(engine.Start());
  for (const char* tag : tags) {
    SCOPED_TRACE(tag);
    ExpectFailure(engine.Get((std::string("/") + tag + ".zpc").c_str()),
                  std::string("Unable to execute '") + tag + ".zpc': " + corrupt);
  }
}

TEST_F(FailurePages, SectionsThatAreMissing) {
  // Without functions the reader uses the bytes of the segments, and a small script still runs.
  struct Case {
    const char* missing;
    const char* sections;
    bool runs;
  };
  const Case cases[] = {
      {"func", "\"dict\", \"syst\", \"glbl\", \"locl\", \"locd\", \"segs\"", true},
      {"glbl", "\"dict\", \"syst\", \"locl\", \"locd\", \"segs\", \"func\"", false},
      {"locl", "\"dict\", \"syst\", \"glbl\", \"locd\", \"segs\", \"func\"", false},
      {"locd", "\"dict\", \"syst\", \"glbl\", \"locl\", \"segs\", \"func\"", false},
      {"segs", "\"dict\", \"syst\", \"glbl\", \"locl\", \"locd\", \"func\"", false},
      {"dict", "\"syst\", \"glbl\", \"locl\", \"locd\", \"segs\", \"func\"", false},
  };
  for (const Case& each : cases)
    engine.Script(each.missing, Writes("x") + ".sections " + each.sections + "\n");
  ASSERT_TRUE(engine.Start());
  for (const Case& each : cases) {
    SCOPED_TRACE(each.missing);
    FastCGIResponse response = engine.Get((std::string("/") + each.missing).c_str());
    if (each.runs) {
      ExpectPage(response, "x");
    } else {
      ExpectFailure(response, std::string("Unable to execute '") + each.missing + "': " + corrupt);
    }
  }
}

TEST_F(FailurePages, AFailureLeavesTheThreadFitForTheNextRequest) {
  engine.arguments = {"-t", "1"};
  ASSERT_TRUE(engine.Start());
  for (int i = 0; i < 3; i++) {
    ExpectFailure(engine.Get("/nowhere.zpc"),
                  "Unable to execute 'nowhere.zpc': No such file or directory");
    ExpectPage(engine.Get("/page.zpc"), "page");
  }
}

}  // namespace
