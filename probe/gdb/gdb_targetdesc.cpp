// Target description and memory map readers (see gdb_targetdesc.h).
#include "gdb/gdb_targetdesc.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace vorden::gdbdesc {

namespace {

bool ParseNum(const std::string& s, U64& v) {
  if (s.empty() || s[0] == '-') return false;
  char* end = nullptr;
  errno = 0;
  v = strtoull(s.c_str(), &end, 0);
  return end && !*end && errno == 0;
}

}  // namespace

std::string Attr(const std::string& sTag, const char* sName) {
  std::string key = std::string(sName) + "=";
  size_t p = 0;
  while ((p = sTag.find(key, p)) != std::string::npos) {
    if (p > 0 && !isspace((unsigned char)sTag[p - 1])) {
      p += key.size();
      continue;
    }
    p += key.size();
    if (p >= sTag.size()) return "";
    char q = sTag[p];
    if (q != '"' && q != '\'') return "";
    size_t e = sTag.find(q, p + 1);
    if (e == std::string::npos) return "";
    return sTag.substr(p + 1, e - p - 1);
  }
  return "";
}

bool ParseRegisters(const std::string& xml, int& Next, std::vector<Register>& Out,
                    const std::function<bool(const std::string&)>& Include, int Depth) {
  if (Depth > 4) return false;
  size_t p = 0;
  for (;;) {
    size_t reg = xml.find("<reg", p), inc = xml.find("<xi:include", p);
    size_t at = std::min(reg, inc);
    if (at == std::string::npos) break;
    size_t end = xml.find('>', at);
    if (end == std::string::npos) break;
    std::string tag = xml.substr(at, end - at);
    p = end;
    if (at == inc) {
      std::string href = Attr(tag, "href");
      if (!href.empty() && !Include(href)) return false;
      continue;
    }
    if (tag.size() > 4 && !isspace((unsigned char)tag[4])) continue;  // "<register..." is not a reg
    Register r;
    r.Name = Attr(tag, "name");
    U64 v;
    r.Bits = ParseNum(Attr(tag, "bitsize"), v) && v > 0 && v <= 1024 ? (int)v : 32;
    std::string rn = Attr(tag, "regnum");
    if (!rn.empty() && ParseNum(rn, v) && v < 100000) Next = (int)v;
    r.Num = Next++;
    std::transform(r.Name.begin(), r.Name.end(), r.Name.begin(), [](unsigned char c) { return (char)tolower(c); });
    if (!r.Name.empty()) Out.push_back(r);
  }
  return true;
}

std::vector<FlashRegion> ParseMemoryMap(const std::string& xml) {
  std::vector<FlashRegion> out;
  size_t p = 0;
  while ((p = xml.find("<memory", p)) != std::string::npos) {
    size_t end = xml.find('>', p);
    if (end == std::string::npos) break;
    std::string tag = xml.substr(p, end - p);
    size_t close = xml.find("</memory>", end);
    std::string body = close == std::string::npos ? "" : xml.substr(end, close - end);
    p = end;
    if (Attr(tag, "type") != "flash") continue;
    U64 a, l, b = 0;
    if (!ParseNum(Attr(tag, "start"), a) || !ParseNum(Attr(tag, "length"), l) || a > 0xFFFFFFFFull || l == 0 ||
        l > 0x100000000ull || a + l > 0x100000000ull)
      continue;
    size_t bp = body.find("name=\"blocksize\"");
    if (bp != std::string::npos) {
      size_t gt = body.find('>', bp), lt = body.find('<', bp);
      if (gt != std::string::npos && lt != std::string::npos && lt > gt) ParseNum(body.substr(gt + 1, lt - gt - 1), b);
    }
    out.push_back({(U32)a, (U32)std::min<U64>(l, 0xFFFFFFFFull), (U32)std::min<U64>(b, l)});
  }
  return out;
}

}  // namespace vorden::gdbdesc
