// The script host: result codes of ExecScriptFunction, loading errors,
// error texts, the pointer test of text arguments and argument rendering.
#include "log/console.h"
#include "project/vscript.h"
#include "script/script.h"
#include "testsupport/consolelines.h"

#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace VScript;

namespace {

class VScriptTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ConsoleRingStart();
    Release();
  }
  void TearDown() override { Release(); }
  QTemporaryDir Dir;
  QString Write(const QString& sName, const QByteArray& Text) {
    const QString p = Dir.filePath(sName);
    QFile f(p);
    EXPECT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(Text);
    return p;
  }
};

}  // namespace

TEST_F(VScriptTest, ResultCodesInTheirOrder) {
  I64 r = 0;
  EXPECT_EQ(ExecScriptFunction("X", -1, 0, nullptr, &r), EXEC_NO_INTERPRETER);
  EXPECT_EQ(LastErrorRaw(), "Script interpreter not allocated");

  ASSERT_EQ(LoadText("void OnProjectLoad (void) {\n}\nint Sum(int a, int b, int c, int d, int e, int f, int g) {\n"
                     "  return a + b + c + d + e + f + g;\n}\nint Id(void) { return 42; }\n"),
            0);
  EXPECT_EQ(ExecScriptFunction("", -1, 0, nullptr, &r), EXEC_UNKNOWN_FUNCTION);
  EXPECT_EQ(LastErrorRaw(), "empty function name");
  EXPECT_EQ(ExecScriptFunction("Nope", -1, 0, nullptr, &r), EXEC_UNKNOWN_FUNCTION);
  EXPECT_EQ(LastErrorRaw(), "unknown function");
  // Host functions and constants are not script functions.
  EXPECT_EQ(ExecScriptFunction("Util.Log", -1, 0, nullptr, &r), EXEC_UNKNOWN_FUNCTION);
  EXPECT_EQ(ExecScriptFunction("VAR_TIF_SPEED", -1, 0, nullptr, &r), EXEC_UNKNOWN_FUNCTION);

  const I64 Args[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(ExecScriptFunction("Sum", -1, 8, Args, &r), EXEC_TOO_MANY_ARGS);
  EXPECT_EQ(LastErrorRaw(), "maximum amount of parameters (7) exceeded");
  ASSERT_EQ(ExecScriptFunction("Sum", -1, 7, Args, &r), EXEC_OK);
  EXPECT_EQ(r, 28);
  EXPECT_EQ(CallLevel(), 0);
  EXPECT_EQ(CurrentEvent(), -1);
  ASSERT_EQ(ExecEvent(1, &r), EXEC_OK);
  EXPECT_EQ(ExecEvent(16), EXEC_UNKNOWN_FUNCTION);
  EXPECT_EQ(ExecEvent(0), EXEC_UNKNOWN_FUNCTION);
  // Undefined events are no error.
  EXPECT_TRUE(IsEventDefined(1));
  EXPECT_FALSE(IsEventDefined(2));
  EXPECT_EQ(ExecEvent(2), EXEC_UNKNOWN_FUNCTION);
  EXPECT_FALSE(HasError());

  SetClosing();
  EXPECT_EQ(ExecScriptFunction("Id", -1, 0, nullptr, &r), EXEC_CLOSING);
  EXPECT_EQ(LastErrorRaw(), "script is closing");
  EXPECT_FALSE(IsEventDefined(1));
}

TEST_F(VScriptTest, CallLevelIsBounded) {
  ASSERT_EQ(LoadText("void OnProjectLoad (void) {\n}\nint Deep(void) { return Test.Again(); }\n"), 0);
  // A host function that starts the script again, as an event started while
  // a script waits would.
  int Calls = 0;
  bool SawMax = false;
  ASSERT_EQ(Engine()->RegisterHostFunction("__api__ int Test.Again (void);",
                                           [&](const SCRIPT_HOST_CALL&) -> I64 {
                                             ++Calls;
                                             I64 r = 0;
                                             const int Rc = ExecScriptFunction("Deep", 7, 0, nullptr, &r);
                                             if (Rc == EXEC_MAX_CALL_LEVEL) SawMax = true;
                                             return Rc;
                                           }),
            0);
  I64 r = 0;
  EXPECT_EQ(ExecScriptFunction("Deep", 5, 0, nullptr, &r), EXEC_OK);
  EXPECT_EQ(Calls, kMaxCallLevel);
  EXPECT_TRUE(SawMax);
  EXPECT_EQ(LastErrorRaw(), "maximum call level reached.");
  EXPECT_EQ(CallLevel(), 0);
  EXPECT_EQ(CurrentEvent(), -1);
}

TEST_F(VScriptTest, LoadingErrors) {
  EXPECT_EQ(Load(Dir.filePath("missing.vdebug")), -1);
  EXPECT_EQ(GetLastError(), "file not found");
  EXPECT_TRUE(HasError());

  EXPECT_EQ(Load(Write("empty.vdebug", "")), -1);
  EXPECT_EQ(GetLastError(), "empty file");

  EXPECT_EQ(Load(Write("other.vdebug", "void Other (void) {\n}\n")), -1);
  EXPECT_EQ(GetLastError(), "Required user function missing: OnProjectLoad");
  EXPECT_EQ(LastErrorLine(), -1);

  // An empty OnProjectLoad is a valid project.
  EXPECT_EQ(Load(Write("ok.vdebug", "void OnProjectLoad (void) {\n}\n")), 0);
  EXPECT_FALSE(HasError());
  EXPECT_EQ(ScriptDir(), Dir.path());
  EXPECT_FALSE(IsScriptFileModified());
  Write("ok.vdebug", "void OnProjectLoad (void) {\n  Util.Log(\"x\");\n}\n");
  EXPECT_TRUE(IsScriptFileModified());

  // A broken head: no load, error with its line, without dots.
  EXPECT_EQ(Load(Write("bad.vdebug", "void OnProjectLoad (void) {\n}\n\nint 3x(void) {\n}\n")), -1);
  EXPECT_TRUE(HasError());
  EXPECT_EQ(LastErrorLine(), 4);
  EXPECT_TRUE(GetLastError().endsWith(" at line 4")) << GetLastError().toStdString();
  EXPECT_FALSE(GetLastError().contains('.'));
}

TEST_F(VScriptTest, ErrorInBodyBlocksLaterEvents) {
  ASSERT_EQ(LoadText("void OnProjectLoad (void) {\n  int a;\n  a = 1 +;\n}\nvoid TargetReset (void) {\n}\n"), 0);
  EXPECT_TRUE(IsEventDefined(2));
  EXPECT_EQ(ExecEvent(1), EXEC_FAILED);
  EXPECT_TRUE(HasError());
  EXPECT_EQ(LastErrorLine(), 3);
  EXPECT_TRUE(LastErrorText().contains("a = 1 +;"));
  EXPECT_FALSE(IsEventDefined(2));
  EXPECT_EQ(ExecEvent(2), EXEC_HAS_ERROR);
  EXPECT_EQ(GetLastError(), "script has error");
  // Loading again clears the state.
  ASSERT_EQ(LoadText("void OnProjectLoad (void) {\n}\n"), 0);
  EXPECT_EQ(ExecEvent(1), EXEC_OK);
}

TEST_F(VScriptTest, FailedCallWithArgumentsDoesNotBlock) {
  ASSERT_EQ(LoadText("void OnProjectLoad (void) {\n}\nint Div(int a) { return 10 / a; }\n"), 0);
  const I64 Zero = 0, Two = 2;
  I64 r = 0;
  EXPECT_EQ(ExecScriptFunction("Div", -1, 1, &Zero, &r), EXEC_FAILED);
  EXPECT_TRUE(GetLastError().startsWith("division by zero")) << GetLastError().toStdString();
  EXPECT_FALSE(HasError());
  ASSERT_EQ(ExecScriptFunction("Div", -1, 1, &Two, &r), EXEC_OK);
  EXPECT_EQ(r, 5);
}

TEST_F(VScriptTest, ConstantsAndPointerTest) {
  ASSERT_TRUE(DefineConstant("MY_BASE", 0x20000000));
  EXPECT_FALSE(DefineConstant("1abc", 1));
  EXPECT_FALSE(DefineConstant(QString(128, 'a'), 1));
  ASSERT_EQ(LoadText("void OnProjectLoad (void) {\n}\n"
                     "int C1(void) { return VAR_TIF_SPEED + COLOR_PC_ACTIVE * 1000 + FONT_CONSOLE * 100000; }\n"
                     "int C2(void) { return FREQ_4_MHZ + SWD; }\n"
                     "int C3(void) { return MY_BASE; }\n"
                     "int C4(void) { return RM_BREAK_AT_MAIN + AW_AUTO + AW_WORD; }\n"
                     "int Bad(void) { return File.Open(5); }\n"
                     "int Alias(void) { return Project.SetTIFScanChain(1, 2); }\n"),
            0);
  I64 r = 0;
  ASSERT_EQ(ExecScriptFunction("C1", -1, 0, nullptr, &r), EXEC_OK);
  EXPECT_EQ(r, 4 + 8 * 1000 + 8 * 100000);
  ASSERT_EQ(ExecScriptFunction("C2", -1, 0, nullptr, &r), EXEC_OK);
  EXPECT_EQ(r, 4000001);
  ASSERT_EQ(ExecScriptFunction("C3", -1, 0, nullptr, &r), EXEC_OK);
  EXPECT_EQ(r, 0x20000000);
  ASSERT_EQ(ExecScriptFunction("C4", -1, 0, nullptr, &r), EXEC_OK);
  EXPECT_EQ(r, 1 + 0 + 4);
  TakeConsoleLines();
  ASSERT_EQ(ExecScriptFunction("Bad", -1, 0, nullptr, &r), EXEC_OK);
  EXPECT_EQ(r, -1);
  EXPECT_TRUE(TakeConsoleLines().contains("Invalid command argument in command \"File.Open\": 0x5 (5)"));
  // The old name of a command is a host function with the current prototype.
  EXPECT_EQ(ExecScriptFunction("Alias", -1, 0, nullptr, &r), EXEC_OK);
}

TEST(VScriptRender, NumbersByDeclaredType) {
  EXPECT_EQ(RenderNumberArg("unsigned int Addr", "Break.Set", -1), "0xFFFFFFFF");
  EXPECT_EQ(RenderNumberArg("unsigned int Address", "Target.ReadU32", 0x20000004), "0x20000004");
  EXPECT_EQ(RenderNumberArg("unsigned int Size", "Debug.ReadIntoInstCache", 4096), "4096");
  EXPECT_EQ(RenderNumberArg("int Mode", "Debug.SetResetMode", 0xFFFFFFFF), "-1");
  EXPECT_EQ(RenderNumberArg("__int64 Value", "Edit.SysVar", 5000000000LL), "5000000000");
  EXPECT_EQ(RenderNumberArg("unsigned char AccessSize", "Break.SetOnData", 0x1FF), "255");
  EXPECT_EQ(RenderNumberArg("unsigned int Value", "Target.WriteU32", 255), "0xFF");
  EXPECT_EQ(RenderNumberArg("unsigned int Flags", "Project.DisableSessionSave", -1), "4294967295");
  EXPECT_EQ(AliasPrototype("__api__ int Project.SetJTAGConfig (int DRPre, int IRLen);", "Project.SetTIFScanChain"),
            "__api__ int Project.SetTIFScanChain (int DRPre, int IRLen);");
}
