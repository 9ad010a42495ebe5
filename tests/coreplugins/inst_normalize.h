// The text normalisation under which the plug-in's instruction text must
// equal objdump's.
//
// Normalisation (applied to both texts):
//   - lower case; objdump's comment ("@ ...") and the plug-in's ("; ...") dropped;
//   - width qualifiers ".n"/".w" at the end of the mnemonic dropped;
//   - register aliases sb/sl/fp/ip -> r9..r12;
//   - every immediate or bare number becomes "#<decimal>" of its 32-bit value
//     (so "#-1" = "#4294967295"); "[Rn, #0]" -> "[Rn]";
//   - condition suffixes "hs"/"lo" (also as the operand of IT) = "cs"/"cc";
//   - the target operand of b/bl/blx/cbz/cbnz becomes "<T>" (compared as a number
//     separately);
// Accepted equivalent forms (objdump form = plug-in form):
//   - "stmdb sp!, {..}" = "push {..}";  "ldmia sp!, {..}" / "ldm sp!, {..}" = "pop {..}";
//   - "vstmdb sp!, {..}" = "vpush {..}";  "vldmia sp!, {..}" = "vpop {..}";
//   - "ldmia" = "ldm", "stmia" = "stm";  "add Rd, sp, Rd" = "add Rd, sp";
//   - "mov[s][cc] Rd, Rm, <shift> #n" = "<shift>[s][cc] Rd, Rm, #n";
//     "mov[s][cc] Rd, Rm, rrx" = "rrx[s][cc] Rd, Rm";  "neg[s][cc] Rd, Rm" = "rsb[s][cc] Rd, Rm, #0";
//   - "add/addw/subw Rd, pc, #imm" = "adr Rd, <address>" (the address is compared);
//   - the immediate of a floating-point vmov is not compared (objdump shows the
//     encoded 8-bit value, the plug-in the number).
#pragma once
#include <cctype>
#include <cstdint>
#include <cstring>
#include <regex>
#include <string>

inline std::string Lower(std::string s) {
  for (char& c : s) c = char(std::tolower((unsigned char)c));
  return s;
}

inline bool IsBranchMnemonic(const std::string& m) {
  static const std::regex R(R"(^(b|bl|blx)(eq|ne|cs|cc|hs|lo|mi|pl|vs|vc|hi|ls|ge|lt|gt|le|al)?$|^cbn?z$)");
  return std::regex_match(m, R);
}

inline std::string StripWidth(std::string m) {
  if (m.size() > 2 && (m.compare(m.size() - 2, 2, ".n") == 0 || m.compare(m.size() - 2, 2, ".w") == 0))
    m.resize(m.size() - 2);
  return m;
}

// Normalises "mnemonic", "operands" into one comparable line.
inline std::string NormalizeInst(std::string Mn, std::string Ops) {
  Mn = StripWidth(Lower(Mn));
  Ops = Lower(Ops);
  // register aliases
  static const std::regex Alias(R"(\b(sb|sl|fp|ip)\b)");
  std::string Tmp;
  std::sregex_iterator it(Ops.begin(), Ops.end(), Alias), end;
  size_t Last = 0;
  for (; it != end; ++it) {
    Tmp += Ops.substr(Last, it->position() - Last);
    std::string a = (*it)[1].str();
    Tmp += a == "sb" ? "r9" : a == "sl" ? "r10" : a == "fp" ? "r11" : "r12";
    Last = it->position() + it->length();
  }
  Tmp += Ops.substr(Last);
  Ops = Tmp;
  auto EndsWith = [](const std::string& a, const char* b) {
    size_t n = std::strlen(b);
    return a.size() > n && a.compare(a.size() - n, n, b) == 0;
  };
  if (EndsWith(Mn, "hs")) Mn = Mn.substr(0, Mn.size() - 2) + "cs";
  if (EndsWith(Mn, "lo")) Mn = Mn.substr(0, Mn.size() - 2) + "cc";
  if (Mn.rfind("it", 0) == 0 && (Ops == "hs" || Ops == "lo")) Ops = Ops == "hs" ? "cs" : "cc";
  {
    static const std::regex MovMn(R"(^mov(s?)(eq|ne|cs|cc|mi|pl|vs|vc|hi|ls|ge|lt|gt|le)?$)");
    static const std::regex NegMn(R"(^neg(s?)(eq|ne|cs|cc|mi|pl|vs|vc|hi|ls|ge|lt|gt|le)?$)");
    static const std::regex ShiftOps(R"(^(r\d+|sp|lr|pc), (r\d+|sp|lr|pc), (lsl|lsr|asr|ror) (#\S+)$)");
    static const std::regex RrxOps(R"(^(r\d+|sp|lr|pc), (r\d+|sp|lr|pc), rrx$)");
    std::smatch mm, sm;
    if (std::regex_match(Mn, mm, MovMn)) {
      if (std::regex_match(Ops, sm, ShiftOps)) {
        Mn = sm[3].str() + mm[1].str() + mm[2].str();
        Ops = sm[1].str() + ", " + sm[2].str() + ", " + sm[4].str();
      } else if (std::regex_match(Ops, sm, RrxOps)) {
        Mn = "rrx" + mm[1].str() + mm[2].str();
        Ops = sm[1].str() + ", " + sm[2].str();
      }
    } else if (std::regex_match(Mn, mm, NegMn) && Ops.find(',') != std::string::npos && Ops.find('#') == std::string::npos) {
      Mn = "rsb" + mm[1].str() + mm[2].str();
      Ops += ", #0";
    }
  }
  {
    static const std::regex AddSp(R"(^(r\d+), sp, (r\d+)$)");
    std::smatch sm;
    if (Mn == "add" && std::regex_match(Ops, sm, AddSp) && sm[1] == sm[2]) Ops = sm[1].str() + ", sp";
  }
  if (IsBranchMnemonic(Mn)) {
    size_t c = Ops.rfind(", ");
    Ops = (c == std::string::npos ? std::string() : Ops.substr(0, c + 2)) + "<T>";
  }
  // equivalent forms
  if ((Mn == "stmdb" || Mn == "stmfd") && Ops.rfind("sp!, ", 0) == 0) { Mn = "push"; Ops = Ops.substr(5); }
  if ((Mn == "ldmia" || Mn == "ldm" || Mn == "ldmfd") && Ops.rfind("sp!, ", 0) == 0) { Mn = "pop"; Ops = Ops.substr(5); }
  if (Mn == "vstmdb" && Ops.rfind("sp!, ", 0) == 0) { Mn = "vpush"; Ops = Ops.substr(5); }
  if (Mn == "vldmia" && Ops.rfind("sp!, ", 0) == 0) { Mn = "vpop"; Ops = Ops.substr(5); }
  if (Mn == "ldmia") Mn = "ldm";
  if (Mn == "stmia") Mn = "stm";
  if ((Mn == "vmov.f32" || Mn == "vmov.f64") && Ops.find('#') != std::string::npos) Ops = Ops.substr(0, Ops.find('#')) + "#F";
  // numbers
  std::string Out;
  for (size_t i = 0; i < Ops.size();) {
    bool Start = i == 0 || !(std::isalnum((unsigned char)Ops[i - 1]) || Ops[i - 1] == '_' || Ops[i - 1] == '.');
    size_t j = i;
    bool Neg = false;
    if (Ops[j] == '#') ++j;
    if (j < Ops.size() && Ops[j] == '-') { Neg = true; ++j; }
    if (Start && j < Ops.size() && std::isdigit((unsigned char)Ops[j])) {
      size_t k = j;
      unsigned long long v;
      if (Ops.compare(j, 2, "0x") == 0) {
        k = j + 2;
        while (k < Ops.size() && std::isxdigit((unsigned char)Ops[k])) ++k;
        v = std::stoull(Ops.substr(j + 2, k - j - 2), nullptr, 16);
      } else {
        while (k < Ops.size() && std::isdigit((unsigned char)Ops[k])) ++k;
        v = std::stoull(Ops.substr(j, k - j));
      }
      if (k < Ops.size() && (std::isalpha((unsigned char)Ops[k]) || Ops[k] == '.')) {
        Out += Ops.substr(i, k - i);  // part of a name
      } else {
        uint32_t u = Neg ? uint32_t(0u - uint32_t(v)) : uint32_t(v);
        Out += "#" + std::to_string(u);
      }
      i = k;
    } else {
      Out += Ops[i++];
    }
  }
  // "[rn, #0]" and "[rn, #-0]" -> "[rn]"
  for (const char* z : {", #0]", ", #-0]"}) {
    size_t p;
    while ((p = Out.find(z)) != std::string::npos) Out.replace(p, std::strlen(z), "]");
  }
  return Out.empty() ? Mn : Mn + " " + Out;
}
