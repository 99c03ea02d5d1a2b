// Arguments that a careless library passes: null where the header allows it, wrong lengths, places
// that do not exist. Nothing here may crash or leak, as the sanitizers see.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "api/zeph.h"
#include "base/host/HTTPOutput.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/api/ProgramFixture.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

// Lengths of a text of five bytes that are wrong, but not beyond its end.
const int kWrongLengths[] = {-2, -5, -1000, INT_MIN};
// Places that no array of a test has.
const int kWrongPlaces[] = {0, -1, 1000000, INT_MAX, INT_MIN};

// What a client would get.
class Response : public HTTPOutput {
 public:
  Response() : HTTPOutput(64, 1 << 20) {}

  void OutputHeaders() override {
    for (HTTPOutput_Header* h = headers.First(); h; h = headers.Next()) {
      ASSERT_GE(h->namelength, 0);
      ASSERT_GE(h->valuelength, 0);
      sent += std::string(h->name, static_cast<size_t>(h->namelength)) + ":" +
              std::string(h->value, static_cast<size_t>(h->valuelength)) + ";";
    }
  }
  int DoWrite(const char* text, int length) override {
    sent.append(text, static_cast<size_t>(length));
    return length;
  }

  std::string sent;
};

class Misuse : public ProgramFixture {
 protected:
  void Inside(std::function<void(ZPPROGRAM)> body, int result = 1) {
    EXPECT_EQ(Call([&](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) { body(program); }), result);
  }
};

TEST_F(Misuse, FreeingNullDoesNothing) {
  zpVariable_Free(nullptr);
  zpVariableList_Free(nullptr);
  zpVariableHash_Free(nullptr);
  zpFile_Close(nullptr);
  zpNetwork_Close(nullptr);
  zpHTTPResponse_Close(nullptr);
  zpLinkBuffer_Free(nullptr);
  zpProgram_Free(nullptr, nullptr);
  zeph_free(nullptr);
  zeph_variable_delete(nullptr);
  zeph_variablelist_delete(nullptr);
  zeph_variabletree_delete(nullptr);
  zeph_file_close(nullptr);
  zeph_network_close(nullptr);
}

TEST_F(Misuse, LengthsMayBeUnwanted) {
  Inside([](ZPPROGRAM program) {
    ZPVARIABLE v = zpVariable_Allocate("name", -1, "value", -1);
    EXPECT_STREQ(zpVariable_Name(v, nullptr), "name");
    EXPECT_STREQ(zpVariable_Value(v, nullptr), "value");
    char* copy = zpVariable_Value_NS(v, nullptr);
    EXPECT_STREQ(copy, "value");
    zpProgram_Free(program, copy);
    zpProgram_Free(program, zpProgram_MakeSessionID(program, nullptr));
    zpProgram_GetCharacterSet(program, nullptr);
    zpProgram_Free(program, zpProgram_Attribute_Encode(program, "a b", -1, nullptr, nullptr));
    zpSystemLibrary_Error(program, nullptr, nullptr);
    zpVariable_Free(v);
  });
}

TEST_F(Misuse, NegativeLengthsAreEmptyTexts) {
  Inside([](ZPPROGRAM program) {
    for (const int length : kWrongLengths) {
      SCOPED_TRACE(length);
      ZPVARIABLE v = zpVariable_Allocate("right", length, "right", length);
      EXPECT_STREQ(zpVariable_Value(v, nullptr), "");
      EXPECT_STREQ(zpVariable_Name(v, nullptr), "");
      zpVariable_SetValue(v, "right", length);
      EXPECT_STREQ(zpVariable_Value(v, nullptr), "");
      ZPVARIABLELIST list = zpVariableList_Allocate();
      zpVariableList_SetVariable(list, "right", length, "right", length);
      zpVariableList_Find(list, "right", length);
      zpVariableList_Free(list);
      ZPVARIABLEHASH hash = zpVariableHash_Allocate();
      zpVariableHash_SetVariable(hash, "right", length, "right", length);
      zpVariableHash_Find(hash, "right", length);
      zpVariableHash_Free(hash);
      zpVariable_Struct_Member("right", length, v, 1);
      zpVariable_Set_Struct_Member("right", length, v, v);
      zpVariable_Delete_Struct_Member("right", length, v);
      zpVariable_Free(v);
      zpProgram_Lookup_Persistent(program, "right", length);
      EXPECT_EQ(zpProgram_RunFunction(program, "right", length, nullptr, nullptr), 0);
      zpProgram_Free(program, zpProgram_Entity_Encode(program, "right", length, nullptr, nullptr));
      zpProgram_Free(program, zpProgram_Entity_Decode(program, "right", length, nullptr, nullptr));
      zpProgram_Free(program,
                     zpProgram_Attribute_Encode(program, "right", length, nullptr, nullptr));
      zpProgram_Free(program,
                     zpProgram_Attribute_Decode(program, "right", length, nullptr, nullptr));
      zpProgram_Free(program,
                     zpProgram_JavaScriptString_Encode(program, "right", length, nullptr, nullptr));
      zpProgram_SetLanguage(program, "right", length);
      zpProgram_SetProcessName(program, "right", length);
      zpProgram_SetDefaultDatabase(program, "right", length);
      zpProgram_Compile_Dynamic_Expression(program, "1", length, nullptr, nullptr);
      zpProgram_Register_Persistent(program, "right", length, nullptr, nullptr);
    }
  });
}

// A path of no bytes is refused.
TEST_F(Misuse, NegativeLengthsAreNoBytesOfAFileAndNoPath) {
  TemporaryDirectory directory;
  UNIXReentrantFileManager disk(&application);
  ASSERT_TRUE(disk.InitializeDataDirectory(directory.path().c_str()));
  application.SetFileManager(&disk);
  Inside([](ZPPROGRAM program) {
    ZPFILE file =
        zpFile_Open(program, ZPFILE_DATA, "right", -1, ZPFILE_READ | ZPFILE_WRITE | ZPFILE_CREATE);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(zpFile_Write(file, "right", 5), 5);
    EXPECT_EQ(zpFile_Write(file, "right", -1), -1);
    zpFile_Seek(file, 0);
    for (const int length : kWrongLengths) {
      SCOPED_TRACE(length);
      char byte = '#';
      EXPECT_LE(zpFile_Read(file, &byte, length), 0);
      EXPECT_EQ(byte, '#');
      EXPECT_LE(zpFile_Write(file, "wrong", length), 0);
      EXPECT_EQ(zpFile_Tell(file), 0);
      EXPECT_EQ(zpFile_Seek(file, length), -1);
      EXPECT_EQ(zpFile_Open(program, ZPFILE_DATA, "right", length, ZPFILE_WRITE), nullptr);
      EXPECT_EQ(zpFile_IsDirectory(program, ZPFILE_DATA, "right", length), -1);
      EXPECT_EQ(zpFile_Delete(program, ZPFILE_DATA, "right", length), -1);
      EXPECT_EQ(zpFile_RemoveDirectory(program, ZPFILE_DATA, "right", length), -1);
      EXPECT_EQ(zpFile_Copy(program, ZPFILE_DATA, "right", -1, ZPFILE_DATA, "to", length), -1);
      EXPECT_EQ(zpFile_Rename(program, ZPFILE_DATA, "right", -1, ZPFILE_DATA, "to", length), -1);
      zpFile_TouchFile(program, ZPFILE_DATA, "right", length);
      zpFile_Size(program, ZPFILE_DATA, "right", length);
      zpProgram_Free(program, zpFile_NormalizePath(program, ZPFILE_DATA, "right", length, nullptr));
      zpFile_Close(zpFile_MakeTemporary(program, ZPFILE_DATA, "right", length, "right", length,
                                        nullptr, ZPFILE_WRITE | ZPFILE_CREATE));
    }
    EXPECT_EQ(zpFile_Length(file), 5);
    zpFile_Close(file);
    EXPECT_EQ(zpFile_Exists(program, ZPFILE_DATA, "right", -1), 1);
  });
}

TEST_F(Misuse, NegativeLengthsAreNoBytesOfAResponseAndNoName) {
  Response response;
  application.SetOutput(&response);
  Inside(
      [](ZPPROGRAM program) {
        for (const int length : kWrongLengths) {
          SCOPED_TRACE(length);
          EXPECT_LE(zpProgram_Output(program, "wrong", length), 0);
          zpProgram_Output_Header(program, "wrong", length, 0, "wrong", length, 0);
          EXPECT_EQ(zpProgram_Lookup_ExternalFunction(program, "second", length), nullptr);
          EXPECT_EQ(zpProgram_FatalError(program, "wrong", length), 0);
        }
      },
      0);
  response.Flush(0);
  EXPECT_THAT(response.sent, StartsWith(":;Fatal error in "));
  EXPECT_THAT(response.sent, testing::Not(HasSubstr("wrong")));
  application.SetOutput(&output);
}

TEST_F(Misuse, NullTextsAreEmptyWhateverTheirLength) {
  Inside([](ZPPROGRAM program) {
    for (const int length : {0, -1, 5}) {
      SCOPED_TRACE(length);
      ZPVARIABLE v = zpVariable_Allocate(nullptr, length, nullptr, length);
      EXPECT_EQ(zpVariable_Value_Integer(v), 0);
      zpVariable_SetValue(v, nullptr, length);
      zpVariable_SetValue_Nocopy(v, nullptr, length, length);
      int bytes = -1;
      zpVariable_Value(v, &bytes);
      EXPECT_EQ(bytes, 0);
      zpVariable_Free(v);
      ZPVARIABLELIST list = zpVariableList_Allocate();
      zpVariableList_SetVariable(list, "named", -1, "a", -1);
      EXPECT_EQ(zpVariableList_Find(list, nullptr, length), nullptr);
      zpVariableList_SetVariable(list, nullptr, length, "b", -1);
      EXPECT_STREQ(zpVariable_Value(zpVariableList_Find(list, nullptr, length), nullptr), "b");
      zpVariableList_Free(list);
      zpProgram_Free(program, zpProgram_Entity_Encode(program, nullptr, 0, nullptr, nullptr));
    }
    ZPLINKBUFFER buffer = zpLinkBuffer_Allocate(-5, 0);
    zpLinkBuffer_Concat_String(buffer, nullptr, 0);
    zpLinkBuffer_Concat_String_Nocopy(buffer, nullptr, 0, 0);
    zpLinkBuffer_Free(buffer);
  });
}

TEST_F(Misuse, PlacesThatAnArrayDoesNotHaveAreNull) {
  for (const int place : kWrongPlaces) {
    SCOPED_TRACE(place);
    ZPVARIABLE array = zpVariable_Allocate("a", -1, nullptr, 0);
    ZPVARIABLE value = zpVariable_Allocate("v", -1, "value", -1);
    zpVariable_Array_Element(1, array, 1);
    EXPECT_EQ(zpVariable_Array_Element(place, array, 0), nullptr);
    zpVariable_Set_Array_Element(place, value, array);
    zpVariable_Array_Next(place, array);
    zpVariable_Array_Previous(place, array);
    zpVariable_Delete_Array_Elements(place, -1, 1, array);
    zpVariable_Delete_Array_Elements(1, place, 1, array);
    if (place < 1000000) {
      zpVariable_Insert_Array_Element(place, value, array);
      zpVariable_Array_Merge(array, place, place, place, 1, array);
      zpVariable_Array_Copy(array, place, place, place, 0, array);
    }
    zpVariable_Free(array);
    zpVariable_Free(value);
    ZPVARIABLEHASH hash = zpVariableHash_Allocate();
    EXPECT_EQ(zpVariableHash_Index(hash, place, 0), nullptr);
    zpVariableHash_Index(hash, place, 1);
    zpVariableHash_Free(hash);
  }
}

TEST_F(Misuse, ElementsOfAScalarAreNoElements) {
  ZPVARIABLE scalar = zpVariable_Allocate("s", -1, "text", -1);
  EXPECT_EQ(zpVariable_Array_Element(1, scalar, 0), nullptr);
  EXPECT_EQ(zpVariable_Struct_Member("m", -1, scalar, 0), nullptr);
  EXPECT_EQ(zpVariable_ElementsUsed(scalar), 0);
  EXPECT_EQ(zpVariable_Array_Collapse(scalar), 0);
  ZPVARIABLELIST list = zpVariableList_Allocate();
  zpVariable_Aggregate_List(scalar, list);
  EXPECT_EQ(zpVariableList_Entries(list), 0);
  EXPECT_EQ(zpVariableList_First(list), nullptr);
  EXPECT_EQ(zpVariableList_Current(list), nullptr);
  EXPECT_EQ(zpVariableList_Next(list), nullptr);
  zpVariableList_Free(list);
  zpVariable_Free(scalar);
}

// The elements of a variable that contains or refers to itself.
TEST_F(Misuse, CirclesEnd) {
  ZPVARIABLE v = zpVariable_Allocate("v", -1, "text", -1);
  zpVariable_Make_Reference(v, nullptr);
  zpVariable_Make_Reference(v, v);
  EXPECT_STREQ(zpVariable_Value(v, nullptr), "text");
  zpVariable_Set_Array_Element(1, v, v);
  EXPECT_NE(zpVariable_Value(v, nullptr), nullptr);
  zpVariable_SetValue_Variable(v, v);
  zpVariable_SetValue(v, "", 0);
  zpVariable_Free(v);
}

TEST_F(Misuse, MemoryOfNoSizeIsMemory) {
  for (const int size : {0, -1, INT_MIN}) {
    void* memory = zpProgram_Allocate(nullptr, size);
    EXPECT_NE(memory, nullptr);
    zpProgram_Free(nullptr, memory);
    zeph_free(zeph_alloc(size));
    zeph_free(zeph_realloc(zeph_alloc(8), 16));
  }
}

TEST_F(Misuse, FunctionsWithTheWrongArgumentsDoNotRun) {
  second = [](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE result) {
    ZPVARIABLELIST list = zpVariableList_Allocate();
    EXPECT_EQ(zpProgram_RunFunction(program, "none", -1, list, result), 0);
    zpVariableList_Free(list);
  };
  Run("call second\nout\n");
}

// A script may change and delete what the library was called with.
TEST_F(Misuse, AScriptThatAFunctionCallsMayDropItsArguments) {
  first = [](ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result) {
    ZPVARIABLE b = zpVariableHash_Find(parameters, "b", -1);
    EXPECT_EQ(zpProgram_RunFunction(program, "change", -1, nullptr, result), 1);
    EXPECT_STREQ(zpVariable_Value(b, nullptr), "changed");
    EXPECT_STREQ(zpVariable_Value(result, nullptr), "done");
  };
  EXPECT_EQ(Run("pushc \"old\"\npopg y\npushi 1\npushg y\ncall first\nout\nexit\n"
                ".function change()\npushc \"changed\"\npopg y\npushc \"done\"\nret\n.end\n"),
            1);
  EXPECT_EQ(output.text, "done");
}

// The script ends only after the function has returned, so the function may go on.
TEST_F(Misuse, EverythingStillWorksAfterAFatalError) {
  Inside(
      [](ZPPROGRAM program) {
        EXPECT_EQ(zpProgram_FatalError(program, "the end", -1), 0);
        EXPECT_EQ(zpProgram_FatalError(program, "again and more", 5), 0);
        EXPECT_EQ(zpProgram_RunFunction(program, "first", -1, nullptr, nullptr), 0);
        ZPEXPRESSION expression =
            zpProgram_Compile_Dynamic_Expression(program, "1", -1, nullptr, nullptr);
        ZPVARIABLE result = zpVariable_Allocate("r", -1, nullptr, 0);
        EXPECT_EQ(zpProgram_Execute_Dynamic_Expression(program, expression, result), 0);
        int truth = 7;
        EXPECT_EQ(zpProgram_Execute_Dynamic_Expression_Boolean(program, expression, &truth), 0);
        EXPECT_EQ(truth, 7);
        zpVariable_Free(result);
        ZPVARIABLELIST list = zpVariableList_Allocate();
        zpProgram_Local_Variables(program, list);
        zpVariableList_Free(list);
      },
      0);
  EXPECT_THAT(output.text, HasSubstr("the end"));
  EXPECT_THAT(output.text, HasSubstr("again\n"));
}

// Symbols that a library lacks.
TEST_F(Misuse, ALibraryWithoutItsExportIsNone) {
  for (const char* name : {"FakeEmpty", "FakeCommerceIncomplete"}) {
    ExternalCallManager other(&application);
    EXPECT_FALSE(other.RegisterDSO(TestLibraryPath(name).c_str()));
    EXPECT_EQ(Text(other.error()), "Unknown symbol 'zeph_function_table'");
  }
  systems.RegisterDSO("empty", TestLibraryPath("FakeEmpty").c_str());
  Inside([](ZPPROGRAM program) {
    ZPSYSTEMLIBRARY library = zpProgram_SystemLibrary(program, "empty");
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(zpSystemLibrary_GetFunction(library, "none"), nullptr);
    EXPECT_STREQ(zpSystemLibrary_Error(program, library, nullptr), "Unknown symbol 'none'");
    EXPECT_EQ(zpSystemLibrary_GetFunction(library, ""), nullptr);
    EXPECT_EQ(zpProgram_SystemLibrary(program, ""), nullptr);
    EXPECT_STREQ(zpSystemLibrary_Error(program, nullptr, nullptr),
                 "System library '' is not configured");
  });
}

}  // namespace
