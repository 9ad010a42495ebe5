// A small host for interpreter tests: a few host functions that record what
// the script did, and a runner that loads, parses and calls one function.
#pragma once

#include "script/script.h"

#include <string>
#include <vector>

struct SCRIPT_RUN {
  int ParseRc = 0;
  int Rc = 0;
  I64 Result = 0;
  std::string Error;        // GetErrorMessage(): text + " at line N"
  std::string ErrorText;    // message alone
  int ErrorLine = -1;
  int Reports = 0;          // calls of the error handler
  std::vector<std::string> Log;
  std::vector<std::pair<U64, U64>> Writes;
  int Counter = 0;
};

class CTestHost {
public:
  CScriptEngine Engine;
  SCRIPT_RUN Run;
  std::vector<std::string> Trace;

  // Loads Text and registers the test host functions and constants.
  int Load(const std::string& Text) {
    Run = SCRIPT_RUN{};
    Trace.clear();
    Engine.Load(Text);
    Engine.SetErrorHandler([this](const SCRIPT_ERROR&) { Run.Reports++; });
    Engine.SetTraceHook([this](int Line, std::string_view s) { Trace.push_back(std::to_string(Line) + ":" + std::string(s)); });
    Engine.RegisterConstant("RM_RESET_HALT", 0);
    Engine.RegisterConstant("FREQ_1_MHZ", 1000000);
    Engine.RegisterConstant("DISABLE_SAVE_ANY", I32(-1));
    Engine.RegisterHostFunction("__api__ int Util.Log(const char* sText);", [this](const SCRIPT_HOST_CALL& c) -> I64 {
      std::string s;
      if (!c.IsTextArg(0) || !c.pEngine->GetText(U64(c.paArgs[0]), &s)) s = "<invalid>";
      Run.Log.push_back(s);
      return 0;
    });
    Engine.RegisterHostFunction("__api__ int Target.WriteU32(unsigned int Addr, unsigned int Value);",
                                [this](const SCRIPT_HOST_CALL& c) -> I64 {
                                  Run.Writes.emplace_back(U64(c.paArgs[0]), U64(c.paArgs[1]));
                                  return 0;
                                });
    Engine.RegisterHostFunction("__api__ __int64 Test.Count(void);", [this](const SCRIPT_HOST_CALL&) -> I64 { return ++Run.Counter; });
    Engine.RegisterHostFunction("__api__ int Test.Stop();", [this](const SCRIPT_HOST_CALL& c) -> I64 {
      c.pEngine->SetStopFlag(true);
      return 0;
    });
    Run.ParseRc = Engine.Parse();
    Capture();
    return Run.ParseRc;
  }

  SCRIPT_RUN& Call(const char* Name = "main", std::vector<I64> Args = {}) {
    Run.Rc = Engine.CallFunctionArgs(Name, int(Args.size()), Args.data(), &Run.Result);
    Capture();
    return Run;
  }

  SCRIPT_RUN& LoadAndCall(const std::string& Text, const char* Name = "main", std::vector<I64> Args = {}) {
    if (Load(Text) != 0) return Run;
    return Call(Name, std::move(Args));
  }

private:
  void Capture() {
    Run.Error = Engine.GetErrorMessage();
    Run.ErrorText = Engine.GetErrorText();
    Run.ErrorLine = Engine.GetErrorLine();
  }
};
