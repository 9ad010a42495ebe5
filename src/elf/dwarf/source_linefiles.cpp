#include "elf/dwarf/source_linefiles.h"

#include <string.h>

namespace {

// A bounds-checked reader over one section; any read past the end sets bad
// and yields zeros, so a cut header ends the parse without harm.
struct Reader {
  const U8* p = nullptr;
  U64 size = 0, pos = 0;
  bool big = false, bad = false;

  bool Need(U64 n) {
    if (bad || n > size || pos > size - n) {
      bad = true;
      return false;
    }
    return true;
  }
  U64 Fixed(int n) {
    if (!Need((U64)n)) return 0;
    U64 v = 0;
    for (int i = 0; i < n; ++i) {
      const U64 b = p[pos + i];
      v |= big ? b << (8 * (n - 1 - i)) : b << (8 * i);
    }
    pos += (U64)n;
    return v;
  }
  U64 Uleb() {
    U64 v = 0;
    for (int shift = 0;; shift += 7) {
      if (!Need(1)) return 0;
      const U8 b = p[pos++];
      if (shift < 64) v |= (U64)(b & 0x7F) << shift;
      if (!(b & 0x80)) return v;
    }
  }
  std::string CString() {
    if (bad || pos >= size) {
      bad = true;
      return {};
    }
    const U8* s = p + pos;
    const void* z = memchr(s, 0, (size_t)(size - pos));
    if (!z) {
      bad = true;
      return {};
    }
    const size_t n = (size_t)((const U8*)z - s);
    pos += n + 1;
    return std::string((const char*)s, n);
  }
  void Skip(U64 n) {
    if (Need(n)) pos += n;
  }
};

struct Section {
  const U8* p = nullptr;
  U64 size = 0;
};

Section SectionOf(const ELF_FILE* f, const char* sName) {
  Section s;
  const int i = ELF_FindSection(f, sName);
  if (i < 0) return s;
  s.p = ELF_GetSectionData(f, i);
  s.size = s.p ? ELF_GetSectionSize(f, i) : 0;
  return s;
}

std::string StringAt(const Section& s, U64 off) {
  if (!s.p || off >= s.size) return {};
  const void* z = memchr(s.p + off, 0, (size_t)(s.size - off));
  if (!z) return {};
  return std::string((const char*)s.p + off, (size_t)((const U8*)z - (s.p + off)));
}

bool IsAbsolute(const std::string& s) {
  return (!s.empty() && (s[0] == '/' || s[0] == '\\')) || (s.size() > 1 && s[1] == ':');
}

std::string Join(const std::string& a, const std::string& b) {
  if (a.empty()) return b;
  if (b.empty()) return a;
  if (a.back() == '/' || a.back() == '\\') return a + b;
  return a + "/" + b;
}

enum : U32 {
  FORM_BLOCK2 = 0x03, FORM_BLOCK4 = 0x04, FORM_DATA2 = 0x05, FORM_DATA4 = 0x06, FORM_DATA8 = 0x07,
  FORM_STRING = 0x08, FORM_BLOCK = 0x09, FORM_BLOCK1 = 0x0a, FORM_DATA1 = 0x0b, FORM_SDATA = 0x0d,
  FORM_STRP = 0x0e, FORM_UDATA = 0x0f, FORM_DATA16 = 0x1e, FORM_LINE_STRP = 0x1f,
};
enum : U32 { LNCT_PATH = 1, LNCT_DIRECTORY_INDEX = 2 };

// One attribute value of a version 5 entry: a text for the string forms, a
// number for the constant forms; other forms are skipped. False for a form
// that cannot be skipped.
bool ReadForm(Reader& r, U32 form, bool is64, const Section& str, const Section& lineStr, std::string* pText,
              U64* pNum) {
  switch (form) {
  case FORM_STRING: *pText = r.CString(); return !r.bad;
  case FORM_STRP: *pText = StringAt(str, r.Fixed(is64 ? 8 : 4)); return !r.bad;
  case FORM_LINE_STRP: *pText = StringAt(lineStr, r.Fixed(is64 ? 8 : 4)); return !r.bad;
  case FORM_DATA1: *pNum = r.Fixed(1); return !r.bad;
  case FORM_DATA2: *pNum = r.Fixed(2); return !r.bad;
  case FORM_DATA4: *pNum = r.Fixed(4); return !r.bad;
  case FORM_DATA8: *pNum = r.Fixed(8); return !r.bad;
  case FORM_UDATA: *pNum = r.Uleb(); return !r.bad;
  case FORM_SDATA: r.Uleb(); return !r.bad;
  case FORM_DATA16: r.Skip(16); return !r.bad;
  case FORM_BLOCK1: r.Skip(r.Fixed(1)); return !r.bad;
  case FORM_BLOCK2: r.Skip(r.Fixed(2)); return !r.bad;
  case FORM_BLOCK4: r.Skip(r.Fixed(4)); return !r.bad;
  case FORM_BLOCK: r.Skip(r.Uleb()); return !r.bad;
  default: return false;
  }
}

struct Entry {
  std::string path;
  U64 dir = 0;
};

// A version 5 entry list: format count, (content type, form) pairs, entry
// count, entries.
bool ReadEntries(Reader& r, bool is64, const Section& str, const Section& lineStr, std::vector<Entry>& out) {
  const U32 nFormats = (U32)r.Fixed(1);
  std::vector<std::pair<U64, U64>> fmt;
  for (U32 i = 0; i < nFormats && !r.bad; ++i) {
    const U64 type = r.Uleb();
    fmt.emplace_back(type, r.Uleb());
  }
  const U64 n = r.Uleb();
  if (r.bad || n > r.size) return false; // each entry takes at least a byte
  for (U64 i = 0; i < n; ++i) {
    Entry e;
    for (auto& f : fmt) {
      std::string text;
      U64 num = 0;
      if (!ReadForm(r, (U32)f.second, is64, str, lineStr, &text, &num)) return false;
      if (f.first == LNCT_PATH) e.path = text;
      if (f.first == LNCT_DIRECTORY_INDEX) e.dir = num;
    }
    out.push_back(std::move(e));
  }
  return !r.bad;
}

} // namespace

const std::string& SRC_UNIT_FILES::PathOf(U64 Number) const {
  static const std::string s_None;
  if (Number < FirstNumber() || Number - FirstNumber() >= paths.size()) return s_None;
  return paths[(size_t)(Number - FirstNumber())];
}

SRC_UNIT_FILES SRC_ReadUnitFiles(const ELF_FILE* f, U64 Offset, const std::string& sCompDir) {
  SRC_UNIT_FILES out;
  const Section line = SectionOf(f, ".debug_line");
  if (!line.p || Offset >= line.size) return out;
  Reader r;
  r.p = line.p;
  r.size = line.size;
  r.pos = Offset;
  r.big = ELF_GetEndian(f) == 1;
  U64 length = r.Fixed(4);
  const bool is64 = length == 0xFFFFFFFFu;
  if (is64) length = r.Fixed(8);
  if (r.bad || length > r.size - r.pos) return out;
  r.size = r.pos + length; // the unit's own bytes only
  const U16 version = (U16)r.Fixed(2);
  if (version < 2 || version > 5) return out;
  if (version >= 5) r.Skip(2); // address size, segment selector size
  const U64 headerLength = r.Fixed(is64 ? 8 : 4);
  if (r.bad || headerLength > r.size - r.pos) return out;
  r.size = r.pos + headerLength;
  r.Skip(version >= 4 ? 5 : 4); // minimum instruction length, (max ops), default is_stmt, line base, line range
  const U32 opcodeBase = (U32)r.Fixed(1);
  if (opcodeBase) r.Skip(opcodeBase - 1);
  if (r.bad) return out;

  std::vector<std::string> dirs;
  std::vector<Entry> files;
  if (version >= 5) {
    const Section str = SectionOf(f, ".debug_str"), lineStr = SectionOf(f, ".debug_line_str");
    std::vector<Entry> dirEntries;
    if (!ReadEntries(r, is64, str, lineStr, dirEntries) || !ReadEntries(r, is64, str, lineStr, files)) return out;
    for (auto& d : dirEntries) dirs.push_back(d.path);
  } else {
    // Include directories count from 1; 0 is the compilation directory.
    dirs.push_back(sCompDir);
    for (;;) {
      std::string d = r.CString();
      if (r.bad) return out;
      if (d.empty()) break;
      dirs.push_back(std::move(d));
    }
    for (;;) {
      Entry e;
      e.path = r.CString();
      if (r.bad) return out;
      if (e.path.empty()) break;
      e.dir = r.Uleb();
      r.Uleb(); // modification time
      r.Uleb(); // length
      if (r.bad) return out;
      files.push_back(std::move(e));
    }
  }
  for (const Entry& e : files) {
    std::string p = e.path;
    if (!IsAbsolute(p)) {
      std::string d = e.dir < dirs.size() ? dirs[(size_t)e.dir] : std::string();
      if (!IsAbsolute(d)) d = Join(sCompDir, d);
      p = Join(d, p);
    }
    out.paths.push_back(std::move(p));
  }
  out.version = version;
  return out;
}
