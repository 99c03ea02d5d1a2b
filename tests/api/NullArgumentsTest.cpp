// Null wherever the header allows it, for each function that has such an argument. Which functions
// these are is read from the declarations, so that none is left out. Nothing here may crash or
// leak, as the sanitizers see.

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "api/zeph.h"
#include "base/database/ExternalDatabase.h"
#include "base/network/HTTPResponseStream.h"
#include "base/systems/unix/UNIXNetworkManager.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/api/ProgramFixture.h"
#include "tests/support/Paths.h"
#include "tests/support/ScriptedConnection.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

class NullArguments : public ProgramFixture {
 protected:
  NullArguments() : network(&application), disk(&application) {
    EXPECT_TRUE(disk.InitializeDataDirectory(directory.path().c_str()));
    application.SetNetworkManager(&network);
    application.SetFileManager(&disk);
  }

  TemporaryDirectory directory;
  UNIXNetworkManager network;
  UNIXReentrantFileManager disk;
};

// The declarations by name: the text from the type of the result to the semicolon.
std::map<std::string, std::string> Declarations() {
  std::ifstream file(InSource("tests/api/Signatures.h"));
  std::stringstream text;
  text << file.rdbuf();
  const std::string all = text.str();
  std::map<std::string, std::string> found;
  const std::regex declaration("\n([A-Za-z_][^;#{}]*?[ *](z(?:p|eph)[A-Za-z_]*)\\([^;{}]*\\));");
  for (std::sregex_iterator i(all.begin(), all.end(), declaration), end; i != end; ++i) {
    found[(*i)[2]] = (*i)[1];
  }
  return found;
}

// Whether the header's rules allow null for one of its arguments: it frees something, it returns an
// error that is not of an object, or it has an out-parameter of type int*.
bool AllowsNull(const std::string& name, const std::string& declaration) {
  static const std::regex names(".*(_Free|_Close|_free|_close|_delete|_Error|_error)");
  static const std::regex file_or_all(".*FatalError");
  return (std::regex_match(name, names) && !std::regex_match(name, file_or_all)) ||
         declaration.find("int* ") != std::string::npos;
}

// A variable for one call.
class Value {
 public:
  Value() : variable(zpVariable_Allocate("name", -1, "value", -1)) {}
  ~Value() { zpVariable_Free(variable); }
  Value(const Value&) = delete;
  Value& operator=(const Value&) = delete;
  operator ZPVARIABLE() const { return variable; }

 private:
  ZPVARIABLE variable;
};

class Buffer {
 public:
  Buffer() : buffer(zpLinkBuffer_Allocate(8, 8)) {}
  ~Buffer() { zpLinkBuffer_Free(buffer); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  operator ZPLINKBUFFER() const { return buffer; }

 private:
  ZPLINKBUFFER buffer;
};

template <char* (*Encode)(ZPPROGRAM, const char*, int, int*, int*)>
void Encoded(ZPPROGRAM program) {
  char* const text = Encode(program, "text", -1, nullptr, nullptr);
  EXPECT_STREQ(text, "text");
  zpProgram_Free(program, text);
}

// A database and one view with one field, for one call.
struct Opened {
  explicit Opened(ZPPROGRAM program) : database(program, "d", -1, 0, nullptr, &table) {}

  _ZP_EL_Database table = {};
  ExternalDatabase database;
  ZPDATABASEVIEW view = zpDatabase_AddView(&database, "v", -1, nullptr);
  ZPDATABASEVARIABLE field = zpDatabaseView_AddVariable(view, "f", -1, nullptr);
};

using Calls = std::map<std::string, std::function<void(ZPPROGRAM)>>;

const Calls kCalls = {
    {"zpVariable_Allocate",
     [](ZPPROGRAM) {
       ZPVARIABLE v = zpVariable_Allocate(nullptr, -1, nullptr, -1);
       EXPECT_EQ(zpVariable_Type(v), 0);
       zpVariable_Free(v);
     }},
    {"zpVariable_Free", [](ZPPROGRAM) { zpVariable_Free(nullptr); }},
    {"zpVariable_Make_Reference",
     [](ZPPROGRAM) {
       const Value v;
       zpVariable_Make_Reference(v, nullptr);
       EXPECT_STREQ(zpVariable_Value(v, nullptr), "value");
     }},
    {"zpVariable_Name", [](ZPPROGRAM) { EXPECT_STREQ(zpVariable_Name(Value(), nullptr), "name"); }},
    {"zpVariable_Value",
     [](ZPPROGRAM) { EXPECT_STREQ(zpVariable_Value(Value(), nullptr), "value"); }},
    {"zpVariable_Value_NS",
     [](ZPPROGRAM program) {
       char* const text = zpVariable_Value_NS(Value(), nullptr);
       EXPECT_STREQ(text, "value");
       zpProgram_Free(program, text);
     }},
    {"zpVariable_SetValue_Nocopy",
     [](ZPPROGRAM) { zpVariable_SetValue_Nocopy(Value(), nullptr, 0, 0); }},
    {"zpVariableList_Free", [](ZPPROGRAM) { zpVariableList_Free(nullptr); }},
    {"zpVariableHash_Free", [](ZPPROGRAM) { zpVariableHash_Free(nullptr); }},
    {"zpProgram_GetCharacterSet",
     [](ZPPROGRAM program) {
       int length = -1;
       EXPECT_EQ(zpProgram_GetCharacterSet(program, nullptr),
                 zpProgram_GetCharacterSet(program, &length));
     }},
    {"zpProgram_Allocate",
     [](ZPPROGRAM) { zpProgram_Free(nullptr, zpProgram_Allocate(nullptr, 8)); }},
    {"zpProgram_Free", [](ZPPROGRAM) { zpProgram_Free(nullptr, nullptr); }},
    {"zpProgram_Attribute_Encode", Encoded<zpProgram_Attribute_Encode>},
    {"zpProgram_Attribute_Decode", Encoded<zpProgram_Attribute_Decode>},
    {"zpProgram_Entity_Encode", Encoded<zpProgram_Entity_Encode>},
    {"zpProgram_Entity_Decode", Encoded<zpProgram_Entity_Decode>},
    {"zpProgram_JavaScriptString_Encode", Encoded<zpProgram_JavaScriptString_Encode>},
    {"zpProgram_MakeSessionID",
     [](ZPPROGRAM program) { zpProgram_Free(program, zpProgram_MakeSessionID(program, nullptr)); }},
    {"zpProgram_Register_Persistent",
     [](ZPPROGRAM program) {
       zpProgram_Register_Persistent(program, "n", -1, nullptr, nullptr);
       EXPECT_EQ(zpProgram_Lookup_Persistent(program, "n", -1), nullptr);
     }},
    {"zpProgram_RunFunction",
     [](ZPPROGRAM program) {
       EXPECT_EQ(zpProgram_RunFunction(program, "empty", -1, nullptr, nullptr), 1);
     }},
    {"zpProgram_Compile_Dynamic_Expression",
     [](ZPPROGRAM program) {
       EXPECT_EQ(zpProgram_Compile_Dynamic_Expression(program, "(", -1, nullptr, nullptr), nullptr);
       EXPECT_NE(zpProgram_Compile_Dynamic_Expression(program, "1", -1, nullptr, nullptr), nullptr);
     }},
    {"zpProgram_Execute_Dynamic_Expression_Boolean",
     [](ZPPROGRAM program) {
       ZPEXPRESSION expression =
           zpProgram_Compile_Dynamic_Expression(program, "1", -1, nullptr, nullptr);
       EXPECT_EQ(zpProgram_Execute_Dynamic_Expression_Boolean(program, expression, nullptr), 1);
     }},
    {"zpProgram_Asynchronous_Sleep",
     [](ZPPROGRAM program) { zpProgram_Asynchronous_Sleep(program, 0, ZPFILE_DATA, nullptr, -1); }},
    {"zpFile_NormalizePath",
     [](ZPPROGRAM program) {
       zpProgram_Free(program, zpFile_NormalizePath(program, ZPFILE_DATA, "a", -1, nullptr));
     }},
    {"zpFile_Close", [](ZPPROGRAM) { zpFile_Close(nullptr); }},
    {"zpFile_Error",
     [](ZPPROGRAM program) {
       EXPECT_EQ(zpFile_Open(program, ZPFILE_DATA, "none", -1, ZPFILE_READ), nullptr);
       EXPECT_NE(zpFile_Error(program, nullptr, nullptr), nullptr);
     }},
    {"zpFile_MakeTemporary",
     [](ZPPROGRAM program) {
       zpFile_Close(zpFile_MakeTemporary(program, ZPFILE_DATA, "", -1, "p", -1, nullptr,
                                         ZPFILE_WRITE | ZPFILE_CREATE));
     }},
    {"zpNetwork_Connect_SSL",
     [](ZPPROGRAM program) {
       EXPECT_EQ(
           zpNetwork_Connect_SSL(program, "no such host", 1, nullptr, nullptr, nullptr, nullptr, 1),
           nullptr);
     }},
    {"zpNetwork_Open_URL",
     [](ZPPROGRAM program) {
       EXPECT_EQ(zpNetwork_Open_URL(program, "http:/x", "GET", nullptr, nullptr, 0, nullptr,
                                    nullptr, nullptr, nullptr, nullptr, 0, 1),
                 nullptr);
     }},
    {"zpNetwork_HTTP_Request",
     [](ZPPROGRAM program) {
       EXPECT_EQ(zpNetwork_HTTP_Request(program, "http:/x", "GET", nullptr, nullptr, 0, nullptr,
                                        nullptr, nullptr, nullptr, nullptr, 0, 1.1, 1),
                 nullptr);
     }},
    {"zpNetwork_Close", [](ZPPROGRAM) { zpNetwork_Close(nullptr); }},
    {"zpNetwork_Error",
     [](ZPPROGRAM program) {
       EXPECT_EQ(zpNetwork_Connect(program, "no such host", 1, 1), nullptr);
       EXPECT_STREQ(zpNetwork_Error(program, nullptr, nullptr), "Error looking up 'no such host'");
     }},
    {"zpHTTPResponse_Close", [](ZPPROGRAM) { zpHTTPResponse_Close(nullptr); }},
    {"zpHTTPResponse_Error",
     [](ZPPROGRAM) {
       ScriptedPeer peer;
       ZPHTTPRESPONSE response = new HTTPResponseStream(new ScriptedConnection(&peer), 1);
       zpHTTPResponse_Error(response, nullptr);
       zpHTTPResponse_Close(response);
     }},
    {"zpDatabase_SetData",
     [](ZPPROGRAM program) {
       Opened opened(program);
       zpDatabase_SetData(&opened.database, nullptr);
     }},
    {"zpDatabase_AddView",
     [](ZPPROGRAM program) { EXPECT_EQ(zpDatabaseView_data(Opened(program).view), nullptr); }},
    {"zpDatabase_SetPrimaryView",
     [](ZPPROGRAM program) {
       Opened opened(program);
       zpDatabase_SetPrimaryView(&opened.database, nullptr);
       EXPECT_EQ(opened.database.PrimaryView(), opened.view);
     }},
    {"zpDatabaseView_SetData",
     [](ZPPROGRAM program) { zpDatabaseView_SetData(Opened(program).view, nullptr); }},
    {"zpDatabaseView_AddVariable",
     [](ZPPROGRAM program) { EXPECT_EQ(zpDatabaseVariable_data(Opened(program).field), nullptr); }},
    {"zpDatabaseVariable_SetData",
     [](ZPPROGRAM program) { zpDatabaseVariable_SetData(Opened(program).field, nullptr); }},
    {"zpSystemLibrary_Error",
     [](ZPPROGRAM program) {
       EXPECT_EQ(zpProgram_SystemLibrary(program, "none"), nullptr);
       EXPECT_STREQ(zpSystemLibrary_Error(program, nullptr, nullptr),
                    "System library 'none' is not configured");
     }},
    {"zpLinkBuffer_Free", [](ZPPROGRAM) { zpLinkBuffer_Free(nullptr); }},
    {"zpLinkBuffer_Concat_String",
     [](ZPPROGRAM) { zpLinkBuffer_Concat_String(Buffer(), nullptr, 0); }},
    {"zpLinkBuffer_Concat_String_Nocopy",
     [](ZPPROGRAM) { zpLinkBuffer_Concat_String_Nocopy(Buffer(), nullptr, 0, 0); }},
    {"zpLinkBuffer_Release",
     [](ZPPROGRAM program) {
       zpProgram_Free(program, zpLinkBuffer_Release(Buffer(), nullptr, nullptr, 0));
     }},
    {"zpLinkBuffer_Data",
     [](ZPPROGRAM) { EXPECT_STREQ(zpLinkBuffer_Data(Buffer(), nullptr, nullptr), ""); }},
    {"zeph_free", [](ZPPROGRAM) { zeph_free(nullptr); }},
    {"zeph_realloc", [](ZPPROGRAM) { zeph_free(zeph_realloc(nullptr, 8)); }},
    {"zeph_variable_delete", [](ZPPROGRAM) { zeph_variable_delete(nullptr); }},
    {"zeph_variablelist_delete", [](ZPPROGRAM) { zeph_variablelist_delete(nullptr); }},
    {"zeph_variabletree_delete", [](ZPPROGRAM) { zeph_variabletree_delete(nullptr); }},
    {"zeph_network_openurl",
     [](ZPPROGRAM program) {
       EXPECT_EQ(zeph_network_openurl(program, "http:/x", "GET", nullptr, nullptr, 0, 1), nullptr);
     }},
    {"zeph_network_close", [](ZPPROGRAM) { zeph_network_close(nullptr); }},
    {"zeph_network_error",
     [](ZPPROGRAM program) { EXPECT_NE(zeph_network_error(program, nullptr), nullptr); }},
    {"zeph_file_close", [](ZPPROGRAM) { zeph_file_close(nullptr); }},
    {"zeph_file_error",
     [](ZPPROGRAM program) { EXPECT_NE(zeph_file_error(program, nullptr), nullptr); }},
};

// Functions whose names look as if null were allowed, and which have no such argument.
const std::set<std::string> kNothingToLeaveOut = {"zeph_file_delete", "zpFile_Delete"};

TEST_F(NullArguments, EachFunctionThatAllowsThemHasACallHere) {
  const std::map<std::string, std::string> all = Declarations();
  EXPECT_GT(all.size(), 200u);
  for (const auto& [name, declaration] : all) {
    if (kNothingToLeaveOut.contains(name) || !AllowsNull(name, declaration)) continue;
    EXPECT_TRUE(kCalls.contains(name)) << declaration;
  }
  for (const auto& [name, call] : kCalls) EXPECT_TRUE(all.contains(name)) << name;
}

TEST_F(NullArguments, AreTaken) {
  second = [](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    for (const auto& [name, call] : kCalls) {
      SCOPED_TRACE(name);
      call(program);
    }
  };
  EXPECT_EQ(Run("call second\npop\nexit\n.function empty()\npushc \"\"\nret\n.end\n"), 1)
      << output.text;
  End();
}

}  // namespace
