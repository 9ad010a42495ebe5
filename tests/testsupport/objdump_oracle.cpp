#include "testsupport/objdump_oracle.h"

#include "testsupport/tools.h"

#include <cctype>
#include <regex>

namespace objdump {

std::map<uint32_t, Inst> Disassemble(const std::string& sPath, std::map<uint32_t, Inst>* pData, uint32_t Start,
                                     uint32_t Stop) {
  std::string Cmd = "arm-none-eabi-objdump -d";
  if (Stop) Cmd += " --start-address=" + std::to_string(Start) + " --stop-address=" + std::to_string(Stop);
  std::map<uint32_t, Inst> M;
  // "  8000:\tb510      \tpush\t{r4, lr}", "  8004:\tf000 f802 \tbl\t800c <f>",
  // "  8010:\t20001000 \t.word\t0x20001000"
  static const std::regex Line(
      R"(^\s*([0-9a-f]+):\t([0-9a-f]+(?: [0-9a-f]+)*) *\t([^\t]+?)(?:\t(.*))?$)");
  for (const std::string& L : SplitLines(RunToolOutput(Cmd + " '" + sPath + "' 2>/dev/null"))) {
    std::smatch m;
    if (!std::regex_match(L, m, Line)) continue;
    Inst I;
    I.Addr = uint32_t(std::stoul(m[1].str(), nullptr, 16));
    const std::string Raw = m[2].str();
    I.Size = 0;
    for (char c : Raw) I.Size += c != ' ';
    I.Size /= 2;
    I.Mnemonic = m[3].str();
    std::string Ops = m[4].str();
    size_t At = Ops.find("\t@");
    if (At == std::string::npos) At = Ops.find("@ ");
    if (At != std::string::npos) {
      I.Comment = Ops.substr(At);
      Ops.resize(At);
    }
    while (!Ops.empty() && std::isspace((unsigned char)Ops.back())) Ops.pop_back();
    I.Operands = Ops;
    if (Raw.size() == 8 || I.Mnemonic[0] == '.') {
      if (pData) (*pData)[I.Addr] = I;
    } else {
      M[I.Addr] = I;
    }
  }
  return M;
}

}  // namespace objdump
