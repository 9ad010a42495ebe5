// libdwarf behind a small interface. The library reads sections through an
// object-access table over the ELF layer's in-memory copy of the file.
#include "elf/dwarf/dwarf_bridge.h"
#include "elf/dwarf/leb128.h"
#include "elf/elf_file.h"

#include <libdwarf/dwarf.h>
#include <libdwarf/libdwarf.h>
#include <set>
#include <string.h>
#include <unordered_map>

namespace dwb {

// The library sizes DW_FORM_strx3 and DW_FORM_addrx3 wrongly when it steps
// over an entry, so in a unit whose abbreviations use them children and
// siblings are found from the raw bytes of the unit instead.
struct AbbrevShape {
  bool children = false;
  std::vector<U16> forms; // 0: a form this reader does not know
};

struct UnitShape {
  bool own = false; // entries are stepped over here, not by the library
  bool big = false;
  const U8* data = nullptr; // the unit's section
  U64 end = 0;              // offset just past the unit in it
  U8 addrSize = 4, offSize = 4;
  U16 version = 0;
  std::unordered_map<U64, AbbrevShape> abbrevs;
};

struct Session {
  ELF_FILE* f = nullptr;
  Dwarf_Debug dbg = nullptr;
  Dwarf_Cie* cies = nullptr;
  Dwarf_Signed cieCount = 0;
  Dwarf_Fde* fdes = nullptr;
  Dwarf_Signed fdeCount = 0;
  std::vector<Dwarf_Regtable_Entry3_s> ruleBuf;
  Dwarf_Obj_Access_Interface iface{};
  Dwarf_Obj_Access_Methods methods{};
  // Units whose DW_AT_sibling values were all seen to point forward inside
  // the unit (key: CU offset, bit 63 for .debug_types), and the unit being
  // walked now.
  std::set<U64> checkedUnits;
  U64 walking = ~0ull;
  // How each unit's entries are stepped over (same key), and the last one
  // asked for.
  std::unordered_map<U64, UnitShape> unitShapes;
  U64 lastShapeKey = ~0ull;
  const UnitShape* lastShape = nullptr;
};

namespace {

// Errors are returned through Dwarf_Error and released at once. Calls
// without an error argument reach this handler instead; the library still
// owns the error object then (it may release it itself), so the handler
// only keeps the library from aborting the process.
void ErrHandler(Dwarf_Error, Dwarf_Ptr) {}

void Drop(Session* s, Dwarf_Error& e) {
  if (e) dwarf_dealloc_error(s->dbg, e);
  e = nullptr;
}

// The headers of .debug_rnglists and .debug_loclists units, checked before
// the library sees the section: it mishandles some malformed headers (a
// double release in its list loader). A section that fails reads as empty.
bool ListSectionSane(const ELF_FILE* f, const U8* p, U64 size) {
  U64 off = 0;
  for (int n = 0; off < size && n < 1000000; ++n) {
    if (size - off < 12) return false;
    auto rd = [&](U64 at, int bytes) {
      U64 v = 0;
      for (int i = 0; i < bytes; ++i) v |= (U64)p[at + (f->bigEndian ? bytes - 1 - i : i)] << (8 * i);
      return v;
    };
    const U64 len = rd(off, 4);
    if (len >= 0xFFFFFFF0u || len < 8 || len > size - off - 4) return false;
    const U64 ver = rd(off + 4, 2), addrSize = p[off + 6], segSize = p[off + 7], count = rd(off + 8, 4);
    if (ver != 5 || (addrSize != 4 && addrSize != 8) || segSize != 0 || count * 4 > len - 8) return false;
    off += 4 + len;
  }
  return off == size;
}

int GetSectionInfo(void* obj, Dwarf_Half idx, Dwarf_Obj_Access_Section* out, int* err) {
  ELF_FILE* f = static_cast<ELF_FILE*>(obj);
  if (idx >= f->sections.size()) {
    *err = 0;
    return DW_DLV_NO_ENTRY;
  }
  const ELF_SECTION& sh = f->sections[idx];
  memset(out, 0, sizeof(*out));
  const char* name = elf_internal::SectionName(f, idx);
  out->name = name ? name : "";
  out->addr = sh.sh_addr;
  out->type = sh.sh_type;
  out->link = sh.sh_link;
  out->info = sh.sh_info;
  out->entrysize = sh.sh_entsize;
  // Sections without bytes in the file read as empty.
  bool inFile = sh.sh_type != ELF_SHT_NOBITS && elf_internal::RangeInFile(f, sh.sh_offset, sh.sh_size);
  if (inFile && (!strcmp(out->name, ".debug_rnglists") || !strcmp(out->name, ".debug_loclists")))
    inFile = ListSectionSane(f, f->fileData + sh.sh_offset, sh.sh_size);
  out->size = inFile ? sh.sh_size : 0;
  return DW_DLV_OK;
}

Dwarf_Endianness GetByteOrder(void* obj) {
  return static_cast<ELF_FILE*>(obj)->bigEndian ? DW_OBJECT_MSB : DW_OBJECT_LSB;
}
Dwarf_Small GetLengthSize(void*) { return 4; }
Dwarf_Small GetPointerSize(void*) { return 4; }
Dwarf_Unsigned GetSectionCount(void* obj) { return static_cast<ELF_FILE*>(obj)->sections.size(); }

int LoadSection(void* obj, Dwarf_Half idx, Dwarf_Small** data, int* err) {
  ELF_FILE* f = static_cast<ELF_FILE*>(obj);
  if (idx >= f->sections.size()) {
    *err = 0;
    return DW_DLV_NO_ENTRY;
  }
  const ELF_SECTION& sh = f->sections[idx];
  if (sh.sh_type == ELF_SHT_NOBITS || !elf_internal::RangeInFile(f, sh.sh_offset, sh.sh_size)) {
    *err = 0;
    return DW_DLV_NO_ENTRY;
  }
  const char* name = elf_internal::SectionName(f, idx);
  if (name && (!strcmp(name, ".debug_rnglists") || !strcmp(name, ".debug_loclists")) &&
      !ListSectionSane(f, f->fileData + sh.sh_offset, sh.sh_size)) {
    *err = 0;
    return DW_DLV_NO_ENTRY;
  }
  *data = f->fileData + sh.sh_offset;
  return DW_DLV_OK;
}

Dwarf_Attribute FindAttr(Die d, U32 code) {
  Dwarf_Attribute a = nullptr;
  if (dwarf_attr((Dwarf_Die)d, (Dwarf_Half)code, &a, nullptr) != DW_DLV_OK) return nullptr;
  return a;
}

// Reads an unsigned LEB128 number at *pAt below End; false if it runs over.
bool SkipLeb(const U8* p, U64 End, U64* pAt, U64* pValue = nullptr) {
  if (*pAt >= End) return false;
  const U8* q = p + *pAt;
  U64 v;
  const bool Ok = dwleb::ReadUleb(q, p + End, &v);
  *pAt = (U64)(q - p);
  if (Ok && pValue) *pValue = v;
  return Ok;
}

// Walks one DWARF 5 location list (IsLoc) or range list from At to its end
// entry; false if an entry is unknown or runs over the section.
bool ListEntriesSane(const U8* p, U64 size, U64 at, bool IsLoc, int AddrSize) {
  for (int n = 0; n < 100000; ++n) {
    if (at >= size) return false;
    const U8 code = p[at++];
    if (code == 0) return true; // end of list
    // Operands: l = LEB128, a = address; a location entry ends in an expression.
    const char* ops;
    bool expr = IsLoc;
    if (IsLoc) {
      // 9: DW_LLE_GNU_view_pair, two view numbers.
      static const char* const kLoc[] = {"", "l", "ll", "ll", "ll", "", "a", "aa", "al", "ll"};
      if (code > 9) return false;
      ops = kLoc[code];
      if (code == 1 || code == 6 || code == 9) expr = false; // base address entries, views
    } else {
      static const char* const kRng[] = {"", "l", "ll", "ll", "ll", "a", "aa", "al"};
      if (code > 7) return false;
      ops = kRng[code];
    }
    for (const char* o = ops; *o; ++o) {
      if (*o == 'l') {
        if (!SkipLeb(p, size, &at)) return false;
      } else {
        if (size - at < (U64)AddrSize) return false;
        at += AddrSize;
      }
    }
    if (expr) {
      U64 len = 0;
      if (!SkipLeb(p, size, &at, &len) || len > size - at) return false;
      at += len;
    }
  }
  return false;
}

// The library follows a list of .debug_loclists or .debug_rnglists without
// checking that it stays inside the section: an entry of the offset table, a
// DW_AT_loclists_base/rnglists_base, a DW_FORM_sec_offset or a counted
// expression that points outside makes it read wild memory. The list is
// walked here before the library is asked; false if it would leave the
// section. BaseAttr is the unit attribute that locates the offset table.
bool ListSane(Session* s, Die d, Dwarf_Attribute a, Dwarf_Half form, U32 BaseAttr, const char* section) {
  if (form != DW_FORM_sec_offset && form != DW_FORM_loclistx && form != DW_FORM_rnglistx)
    return true; // a single expression
  const ELF_FILE* f = s->f;
  const int idx = elf_internal::FindSection(f, section);
  if (idx < 0) return false;
  const ELF_SECTION& sh = f->sections[idx];
  if (!elf_internal::RangeInFile(f, sh.sh_offset, sh.sh_size)) return false;
  const U64 size = sh.sh_size;
  const U8* p = f->fileData + sh.sh_offset;
  const bool isLoc = BaseAttr == DW_AT_loclists_base;
  const int addrSize = UnitAddrSize(d) == 8 ? 8 : 4;
  Dwarf_Error e = nullptr;
  if (form == DW_FORM_sec_offset) {
    Dwarf_Off o = 0;
    const bool ok = dwarf_global_formref(a, &o, &e) == DW_DLV_OK;
    Drop(s, e);
    return ok && ListEntriesSane(p, size, o, isLoc, addrSize);
  }
  Dwarf_Unsigned index = 0;
  if (dwarf_formudata(a, &index, &e) != DW_DLV_OK) {
    Drop(s, e);
    return false;
  }
  // The offset table: the unit's base attribute, else the one of the first
  // contribution, right behind its 12-byte header.
  U64 base = 12;
  Dwarf_Off cuOff = 0;
  if (dwarf_CU_dieoffset_given_die((Dwarf_Die)d, &cuOff, &e) != DW_DLV_OK) {
    Drop(s, e);
    return false;
  }
  Dwarf_Die cu = nullptr;
  if (dwarf_offdie_b(s->dbg, cuOff, IsInfo(d), &cu, &e) != DW_DLV_OK) {
    Drop(s, e);
    return false;
  }
  if (Dwarf_Attribute b = FindAttr(cu, BaseAttr)) {
    Dwarf_Off o = 0;
    if (dwarf_global_formref(b, &o, &e) == DW_DLV_OK) base = o;
    Drop(s, e);
    dwarf_dealloc_attribute(b);
  }
  dwarf_dealloc_die(cu);
  if (base < 12 || base >= size || index >= (size - base) / 4) return false;
  U64 entry = 0;
  const U64 at = base + 4 * index;
  for (int i = 0; i < 4; ++i) entry |= (U64)p[at + (f->bigEndian ? 3 - i : i)] << (8 * i);
  return entry < size - base && ListEntriesSane(p, size, base + entry, isLoc, addrSize);
}

} // namespace

Session* Open(ELF_FILE* f, int* pErr) {
  *pErr = 0;
  if (!f) return nullptr;
  Session* s = new Session;
  s->f = f;
  s->methods.get_section_info = GetSectionInfo;
  s->methods.get_byte_order = GetByteOrder;
  s->methods.get_length_size = GetLengthSize;
  s->methods.get_pointer_size = GetPointerSize;
  s->methods.get_section_count = GetSectionCount;
  s->methods.load_section = LoadSection;
  s->methods.relocate_a_section = nullptr;
  s->iface.object = f;
  s->iface.methods = &s->methods;
  Dwarf_Error e = nullptr;
  // Without the library's record of every allocation, which costs a tree
  // search per object; the reader frees what it keeps itself.
  dwarf_set_de_alloc_flag(0);
  int r = dwarf_object_init_b(&s->iface, ErrHandler, s, DW_GROUPNUMBER_ANY, &s->dbg, &e);
  if (r != DW_DLV_OK) {
    *pErr = (r == DW_DLV_NO_ENTRY) ? 0 : (int)dwarf_errno(e);
    if (e) dwarf_dealloc_error(nullptr, e);
    delete s;
    return nullptr;
  }
  // Frame rule constants as the call-frame reader expects them.
  dwarf_set_frame_rule_initial_value(s->dbg, DW_FRAME_SAME_VAL);
  dwarf_set_frame_cfa_value(s->dbg, DW_FRAME_CFA_COL3);
  dwarf_set_frame_same_value(s->dbg, DW_FRAME_SAME_VAL);
  dwarf_set_frame_undefined_value(s->dbg, DW_FRAME_UNDEFINED_VAL);
  dwarf_set_frame_rule_table_size(s->dbg, CFI_TABLE_SIZE);
  return s;
}

void Close(Session* s) {
  if (!s) return;
  Dwarf_Error e = nullptr;
  if (s->fdes || s->cies) dwarf_fde_cie_list_dealloc(s->dbg, s->cies, s->cieCount, s->fdes, s->fdeCount);
  if (s->dbg) dwarf_object_finish(s->dbg, &e);
  delete s;
}

int NextUnit(Session* s, bool isInfo, UnitHeader* p) {
  Dwarf_Unsigned len = 0, typeOff = 0, next = 0;
  Dwarf_Half ver = 0, addrSize = 0, lenSize = 0, extSize = 0, unitType = 0;
  Dwarf_Off abbrev = 0;
  Dwarf_Sig8 sig{};
  Dwarf_Error e = nullptr;
  int r = dwarf_next_cu_header_d(s->dbg, isInfo, &len, &ver, &abbrev, &addrSize, &lenSize, &extSize, &sig, &typeOff,
                                 &next, &unitType, &e);
  if (r == DW_DLV_NO_ENTRY) return 0;
  if (r != DW_DLV_OK) {
    Drop(s, e);
    return -1;
  }
  p->version = ver;
  p->addrSize = (U8)addrSize;
  p->unitType = (U8)unitType;
  p->isInfo = isInfo;
  p->nextOffset = next;
  U64 sv = 0;
  for (int i = 0; i < 8; ++i) sv = (sv << 8) | (U8)sig.signature[i];
  p->signature = sv;
  p->typeOffset = typeOff;
  // The header offset is found from the root entry.
  Dwarf_Die root = nullptr;
  if (dwarf_siblingof_b(s->dbg, nullptr, isInfo, &root, &e) == DW_DLV_OK) {
    Dwarf_Off hdr = 0, cuLen = 0;
    if (dwarf_die_CU_offset_range(root, &hdr, &cuLen, &e) == DW_DLV_OK) p->offset = hdr;
    else Drop(s, e);
    dwarf_dealloc_die(root);
  } else {
    Drop(s, e);
  }
  return 1;
}

Die UnitRoot(Session* s, bool isInfo) {
  Dwarf_Die d = nullptr;
  Dwarf_Error e = nullptr;
  if (dwarf_siblingof_b(s->dbg, nullptr, isInfo, &d, &e) != DW_DLV_OK) {
    Drop(s, e);
    return nullptr;
  }
  return d;
}

Die OffDie(Session* s, U64 offset, bool isInfo) {
  Dwarf_Die d = nullptr;
  Dwarf_Error e = nullptr;
  if (dwarf_offdie_b(s->dbg, offset, isInfo, &d, &e) != DW_DLV_OK) {
    Drop(s, e);
    return nullptr;
  }
  return d;
}

// Children and siblings always follow an entry in its section. The library
// takes a sibling from DW_AT_sibling when there is one; a value that points
// back would make every walk go round in circles, so such a step ends.
static Die Forward(Die from, Dwarf_Die to) {
  if (!to) return nullptr;
  Dwarf_Off a = 0, b = 0;
  if (dwarf_dieoffset((Dwarf_Die)from, &a, nullptr) == DW_DLV_OK &&
      dwarf_dieoffset(to, &b, nullptr) == DW_DLV_OK && b > a)
    return to;
  dwarf_dealloc_die(to);
  return nullptr;
}

static U64 UnitKey(Die d);

// Bytes of the named section as the library sees them, or false.
static bool SectionBytes(Session* s, const char* name, const U8** pData, U64* pSize) {
  const int i = elf_internal::FindSection(s->f, name);
  if (i < 0) return false;
  const ELF_SECTION& sh = s->f->sections[i];
  if (sh.sh_type == ELF_SHT_NOBITS || !elf_internal::RangeInFile(s->f, sh.sh_offset, sh.sh_size)) return false;
  *pData = s->f->fileData + sh.sh_offset;
  *pSize = sh.sh_size;
  return true;
}

static U64 ReadUint(const U8* p, int bytes, bool big) {
  U64 v = 0;
  for (int i = 0; i < bytes; ++i) v |= (U64)p[big ? bytes - 1 - i : i] << (8 * i);
  return v;
}

// Reads the header and abbreviations of the unit whose header is at hdr. The
// unit is marked own only when they could be read and use a form the
// library mis-sizes; anything else stays with the library.
static UnitShape ReadUnitShape(Session* s, U64 hdr, bool isInfo) {
  UnitShape u;
  const U8* p = nullptr;
  U64 size = 0;
  if (!SectionBytes(s, isInfo ? ".debug_info" : ".debug_types", &p, &size) || hdr > size || size - hdr < 4)
    return u;
  u.big = s->f->bigEndian;
  U64 at = hdr + 4, len = ReadUint(p + hdr, 4, u.big);
  if (len == 0xFFFFFFFFu) {
    if (size - at < 8) return u;
    len = ReadUint(p + at, 8, u.big);
    at += 8;
    u.offSize = 8;
  } else if (len >= 0xFFFFFFF0u) {
    return u;
  }
  if (len > size - at || len < 2) return u;
  u.end = at + len;
  u.version = (U16)ReadUint(p + at, 2, u.big);
  at += 2;
  U64 abbrevOff = 0;
  if (u.version >= 5) {
    if (u.end - at < 2u + u.offSize) return u;
    u.addrSize = p[at + 1];
    abbrevOff = ReadUint(p + at + 2, u.offSize, u.big);
  } else {
    if (u.end - at < 1u + u.offSize) return u;
    abbrevOff = ReadUint(p + at, u.offSize, u.big);
    u.addrSize = p[at + u.offSize];
  }
  const U8* a = nullptr;
  U64 aSize = 0;
  if (!SectionBytes(s, ".debug_abbrev", &a, &aSize) || abbrevOff >= aSize) return u;
  bool odd = false, valuesAtRisk = false;
  auto odd3InShape = [](const AbbrevShape& sh) {
    for (U16 f : sh.forms)
      if (f == DW_FORM_strx3 || f == DW_FORM_addrx3) return true;
    return false;
  };
  at = abbrevOff;
  for (;;) {
    U64 code = 0, tag = 0;
    if (!SkipLeb(a, aSize, &at, &code) || code == 0 || !SkipLeb(a, aSize, &at, &tag) || at >= aSize) break;
    AbbrevShape shape;
    shape.children = a[at++] != 0;
    bool done = false;
    for (;;) {
      U64 attr = 0, form = 0;
      if (!SkipLeb(a, aSize, &at, &attr) || !SkipLeb(a, aSize, &at, &form)) break;
      if (attr == 0 && form == 0) {
        done = true;
        break;
      }
      if (form == DW_FORM_implicit_const && !SkipLeb(a, aSize, &at)) break;
      if (form == DW_FORM_strx3 || form == DW_FORM_addrx3) odd = true;
      else if (odd3InShape(shape)) valuesAtRisk = true;
      shape.forms.push_back(form <= 0xFFFF ? (U16)form : 0);
    }
    if (!done) break;
    u.abbrevs.emplace(code, std::move(shape));
  }
  u.own = odd;
  if (!odd) u.abbrevs.clear();
  // The library also reads the attributes that follow such a form in an
  // entry from the wrong place: say so in the log rather than stay silent.
  if (valuesAtRisk)
    ELF_ReportLine("DWARF unit at 0x%llX: attribute values behind a 3-byte index form may be misread",
                   (unsigned long long)hdr);
  u.data = p;
  return u;
}

// The shape of D's unit if its entries are stepped over here, else null.
static const UnitShape* OwnShape(Session* s, Die d) {
  const U64 key = UnitKey(d);
  if (key == ~0ull) return nullptr;
  if (key == s->lastShapeKey) return s->lastShape;
  auto it = s->unitShapes.find(key);
  if (it == s->unitShapes.end()) {
    Dwarf_Off hdr = 0, len = 0;
    UnitShape u;
    if (dwarf_die_CU_offset_range((Dwarf_Die)d, &hdr, &len, nullptr) == DW_DLV_OK) u = ReadUnitShape(s, hdr, IsInfo(d));
    it = s->unitShapes.emplace(key, std::move(u)).first;
  }
  s->lastShapeKey = key;
  s->lastShape = it->second.own ? &it->second : nullptr;
  return s->lastShape;
}

// Steps *pAt over one attribute value of the given form; false if it runs
// past the unit or the form is unknown.
static bool SkipForm(const UnitShape& u, U64 form, U64* pAt, int indirections = 0) {
  const U8* p = u.data;
  const U64 end = u.end;
  auto fixed = [&](U64 n) {
    if (end - *pAt < n) return false;
    *pAt += n;
    return true;
  };
  auto counted = [&](int lenBytes) {
    if (end - *pAt < (U64)lenBytes) return false;
    const U64 n = ReadUint(p + *pAt, lenBytes, u.big);
    *pAt += lenBytes;
    return fixed(n);
  };
  U64 n = 0;
  switch (form) {
  case DW_FORM_flag_present:
  case DW_FORM_implicit_const:
    return true;
  case DW_FORM_data1:
  case DW_FORM_ref1:
  case DW_FORM_flag:
  case DW_FORM_strx1:
  case DW_FORM_addrx1:
    return fixed(1);
  case DW_FORM_data2:
  case DW_FORM_ref2:
  case DW_FORM_strx2:
  case DW_FORM_addrx2:
    return fixed(2);
  case DW_FORM_strx3:
  case DW_FORM_addrx3:
    return fixed(3);
  case DW_FORM_data4:
  case DW_FORM_ref4:
  case DW_FORM_strx4:
  case DW_FORM_addrx4:
  case DW_FORM_ref_sup4:
    return fixed(4);
  case DW_FORM_data8:
  case DW_FORM_ref8:
  case DW_FORM_ref_sig8:
  case DW_FORM_ref_sup8:
    return fixed(8);
  case DW_FORM_data16:
    return fixed(16);
  case DW_FORM_addr:
    return fixed(u.addrSize);
  case DW_FORM_ref_addr:
    return fixed(u.version <= 2 ? u.addrSize : u.offSize);
  case DW_FORM_strp:
  case DW_FORM_sec_offset:
  case DW_FORM_strp_sup:
  case DW_FORM_line_strp:
  case DW_FORM_GNU_ref_alt:
  case DW_FORM_GNU_strp_alt:
    return fixed(u.offSize);
  case DW_FORM_sdata:
  case DW_FORM_udata:
  case DW_FORM_ref_udata:
  case DW_FORM_strx:
  case DW_FORM_addrx:
  case DW_FORM_loclistx:
  case DW_FORM_rnglistx:
  case DW_FORM_GNU_addr_index:
  case DW_FORM_GNU_str_index:
    return SkipLeb(p, end, pAt);
  case DW_FORM_string: {
    const void* z = memchr(p + *pAt, 0, end - *pAt);
    if (!z) return false;
    *pAt = (U64)(static_cast<const U8*>(z) - p) + 1;
    return true;
  }
  case DW_FORM_block1:
    return counted(1);
  case DW_FORM_block2:
    return counted(2);
  case DW_FORM_block4:
    return counted(4);
  case DW_FORM_block:
  case DW_FORM_exprloc:
    return SkipLeb(p, end, pAt, &n) && fixed(n);
  case DW_FORM_indirect:
    return indirections < 4 && SkipLeb(p, end, pAt, &n) && n != DW_FORM_indirect && n != DW_FORM_implicit_const &&
           SkipForm(u, n, pAt, indirections + 1);
  default:
    return false;
  }
}

// Reads the entry at *pAt and moves *pAt past its attributes. *pShape is
// null for a null entry (the end of a list of children). False if the
// entry runs past the unit or names an unknown abbreviation.
static bool StepEntry(const UnitShape& u, U64* pAt, const AbbrevShape** pShape) {
  U64 code = 0;
  if (*pAt >= u.end || !SkipLeb(u.data, u.end, pAt, &code)) return false;
  if (code == 0) {
    *pShape = nullptr;
    return true;
  }
  auto it = u.abbrevs.find(code);
  if (it == u.abbrevs.end()) return false;
  for (U16 form : it->second.forms)
    if (!SkipForm(u, form, pAt)) return false;
  *pShape = &it->second;
  return true;
}

// The entry at At as the library reads it, or null for a null entry, the
// end of the unit or an entry that cannot be read.
static Die OwnEntryAt(Session* s, const UnitShape& u, U64 at, bool isInfo) {
  U64 next = at;
  const AbbrevShape* shape = nullptr;
  if (!StepEntry(u, &next, &shape) || !shape) return nullptr;
  Dwarf_Die c = nullptr;
  Dwarf_Error e = nullptr;
  if (dwarf_offdie_b(s->dbg, at, isInfo, &c, &e) != DW_DLV_OK) {
    Drop(s, e);
    return nullptr;
  }
  return c;
}

static Die OwnChild(Session* s, const UnitShape& u, Die d) {
  U64 at = Offset(d);
  const AbbrevShape* shape = nullptr;
  if (!StepEntry(u, &at, &shape) || !shape || !shape->children) return nullptr;
  return OwnEntryAt(s, u, at, IsInfo(d));
}

// Skips the entry and its subtree entry by entry; every step moves forward
// inside the unit, so malformed input ends the walk.
static Die OwnSibling(Session* s, const UnitShape& u, Die d) {
  U64 at = Offset(d);
  const AbbrevShape* shape = nullptr;
  if (!StepEntry(u, &at, &shape) || !shape) return nullptr;
  for (U64 depth = shape->children ? 1 : 0; depth > 0;) {
    if (!StepEntry(u, &at, &shape)) return nullptr;
    if (!shape) --depth;
    else if (shape->children) ++depth;
  }
  return OwnEntryAt(s, u, at, IsInfo(d));
}

Die Child(Session* s, Die d) {
  Dwarf_Die c = nullptr;
  Dwarf_Error e = nullptr;
  if (d)
    if (const UnitShape* u = OwnShape(s, d)) return Forward(d, (Dwarf_Die)OwnChild(s, *u, d));
  if (!d || dwarf_child((Dwarf_Die)d, &c, &e) != DW_DLV_OK) {
    Drop(s, e);
    return nullptr;
  }
  return Forward(d, c);
}

static U64 UnitKey(Die d) {
  Dwarf_Off o = 0;
  if (!d || dwarf_CU_dieoffset_given_die((Dwarf_Die)d, &o, nullptr) != DW_DLV_OK) return ~0ull;
  return (U64)o | (IsInfo(d) ? 0 : 1ull << 63);
}

void BeginUnitWalk(Session* s, Die root) { s->walking = UnitKey(root); }

void EndUnitWalk(Session* s, bool Checked) {
  if (Checked && s->walking != ~0ull) s->checkedUnits.insert(s->walking);
  s->walking = ~0ull;
}

bool SiblingAttrSane(Session* s, Die d) {
  Dwarf_Attribute a = FindAttr(d, DW_AT_sibling);
  if (!a) return true;
  Dwarf_Off to = 0, cuOff = 0, cuLen = 0;
  Dwarf_Error e = nullptr;
  bool ok = dwarf_global_formref(a, &to, &e) == DW_DLV_OK;
  Drop(s, e);
  dwarf_dealloc_attribute(a);
  if (ok) {
    ok = dwarf_die_CU_offset_range((Dwarf_Die)d, &cuOff, &cuLen, &e) == DW_DLV_OK;
    Drop(s, e);
  }
  return ok && to > Offset(d) && to < cuOff + cuLen;
}

Die Sibling(Session* s, Die d, bool isInfo) {
  Dwarf_Die c = nullptr;
  Dwarf_Error e = nullptr;
  // A unit root has no sibling: asking would make the library scan the
  // whole unit. For an entry with children the library skips the subtree
  // by the DW_AT_sibling values inside it, and one that points back makes
  // it loop for ever: only units whose walk has checked them, or the unit
  // being walked (its walk only steps over subtrees it has checked), may
  // be crossed. Units stepped over here (see UnitShape) follow no
  // DW_AT_sibling and need no such check.
  if (d && HasChildren(d)) {
    Dwarf_Off o = 0;
    if (dwarf_CU_dieoffset_given_die((Dwarf_Die)d, &o, nullptr) != DW_DLV_OK || o == Offset(d)) return nullptr;
    if (const UnitShape* u = OwnShape(s, d)) return Forward(d, (Dwarf_Die)OwnSibling(s, *u, d));
    const U64 k = UnitKey(d);
    if (k != s->walking && !s->checkedUnits.count(k)) return nullptr;
  } else if (d) {
    if (const UnitShape* u = OwnShape(s, d)) return Forward(d, (Dwarf_Die)OwnSibling(s, *u, d));
  }
  if (!d || dwarf_siblingof_b(s->dbg, (Dwarf_Die)d, isInfo, &c, &e) != DW_DLV_OK) {
    Drop(s, e);
    return nullptr;
  }
  return Forward(d, c);
}

void FreeDie(Session*, Die d) {
  if (d) dwarf_dealloc_die((Dwarf_Die)d);
}

U64 Offset(Die d) {
  Dwarf_Off o = 0;
  if (!d || dwarf_dieoffset((Dwarf_Die)d, &o, nullptr) != DW_DLV_OK) {
    return 0;
  }
  return o;
}

U32 Tag(Die d) {
  Dwarf_Half t = 0;
  if (!d || dwarf_tag((Dwarf_Die)d, &t, nullptr) != DW_DLV_OK) {
    return 0;
  }
  return t;
}

bool IsInfo(Die d) { return d && dwarf_get_die_infotypes_flag((Dwarf_Die)d); }

bool HasChildren(Die d) {
  Dwarf_Half h = 0;
  if (!d || dwarf_die_abbrev_children_flag((Dwarf_Die)d, &h) != DW_DLV_OK) return false;
  return h != 0;
}

U64 UnitOffset(Die d) {
  Dwarf_Off hdr = 0, len = 0;
  if (!d || dwarf_die_CU_offset_range((Dwarf_Die)d, &hdr, &len, nullptr) != DW_DLV_OK) {
    return 0;
  }
  return hdr;
}

int UnitVersion(Die d) {
  Dwarf_Half v = 0, os = 0;
  if (!d || dwarf_get_version_of_die((Dwarf_Die)d, &v, &os) != DW_DLV_OK) return 0;
  return v;
}

int UnitAddrSize(Die d) {
  Dwarf_Half ver = 0, offSize = 0, addrSize = 0, extSize = 0;
  Dwarf_Bool isInfo = 0, isDwo = 0;
  Dwarf_Sig8* sig = nullptr;
  Dwarf_Off offLen = 0, localEnd = 0;
  if (!d || dwarf_cu_header_basics((Dwarf_Die)d, &ver, &isInfo, &isDwo, &offSize, &addrSize, &extSize, &sig, &offLen,
                                   &localEnd, nullptr) != DW_DLV_OK) {
    return 4;
  }
  return addrSize ? addrSize : 4;
}

bool HasAttr(Die d, U32 code) {
  Dwarf_Bool b = 0;
  if (!d || dwarf_hasattr((Dwarf_Die)d, (Dwarf_Half)code, &b, nullptr) != DW_DLV_OK) {
    return false;
  }
  return b != 0;
}

const char* Name(Die d) {
  char* n = nullptr;
  if (!d || dwarf_diename((Dwarf_Die)d, &n, nullptr) != DW_DLV_OK) {
    return nullptr;
  }
  return n;
}

bool GetAttr(Session* s, Die d, U32 code, AttrValue* v) {
  *v = AttrValue();
  if (!d) return false;
  Dwarf_Attribute a = FindAttr(d, code);
  if (!a) return false;
  Dwarf_Error e = nullptr;
  Dwarf_Half form = 0;
  bool ok = false;
  if (dwarf_whatform(a, &form, &e) != DW_DLV_OK) {
    Drop(s, e);
    dwarf_dealloc_attribute(a);
    return false;
  }
  v->form = form;
  switch (form) {
  case DW_FORM_addr:
  case DW_FORM_addrx:
  case DW_FORM_addrx1:
  case DW_FORM_addrx2:
  case DW_FORM_addrx3:
  case DW_FORM_addrx4:
  case DW_FORM_GNU_addr_index: {
    Dwarf_Addr ad = 0;
    ok = dwarf_formaddr(a, &ad, &e) == DW_DLV_OK;
    v->cls = AC_ADDR;
    v->u = ad;
    break;
  }
  case DW_FORM_data1:
  case DW_FORM_data2:
  case DW_FORM_data4:
  case DW_FORM_data8:
  case DW_FORM_udata:
  case DW_FORM_implicit_const: {
    Dwarf_Unsigned u = 0;
    ok = dwarf_formudata(a, &u, &e) == DW_DLV_OK;
    if (!ok) Drop(s, e);
    Dwarf_Signed sv = 0;
    if (dwarf_formsdata(a, &sv, &e) == DW_DLV_OK) {
      v->s = sv;
      if (!ok) {
        ok = true;
        u = (Dwarf_Unsigned)sv;
      }
    } else {
      Drop(s, e);
      v->s = (I64)u;
    }
    v->cls = AC_UNSIGNED;
    v->u = u;
    break;
  }
  case DW_FORM_sdata: {
    Dwarf_Signed sv = 0;
    ok = dwarf_formsdata(a, &sv, &e) == DW_DLV_OK;
    v->cls = AC_SIGNED;
    v->s = sv;
    v->u = (U64)sv;
    break;
  }
  case DW_FORM_flag:
  case DW_FORM_flag_present: {
    Dwarf_Bool b = 0;
    ok = dwarf_formflag(a, &b, &e) == DW_DLV_OK;
    v->cls = AC_FLAG;
    v->u = b ? 1 : 0;
    break;
  }
  case DW_FORM_sec_offset:
  case DW_FORM_loclistx:
  case DW_FORM_rnglistx: {
    // Offsets into other sections: read as a plain number.
    Dwarf_Off o = 0;
    if (form == DW_FORM_sec_offset) {
      ok = dwarf_global_formref(a, &o, &e) == DW_DLV_OK;
    } else {
      Dwarf_Unsigned u = 0;
      ok = dwarf_formudata(a, &u, &e) == DW_DLV_OK;
      o = u;
    }
    v->cls = AC_SECOFF;
    v->u = o;
    break;
  }
  case DW_FORM_ref_addr:
  case DW_FORM_ref1:
  case DW_FORM_ref2:
  case DW_FORM_ref4:
  case DW_FORM_ref8:
  case DW_FORM_ref_udata:
  case DW_FORM_GNU_ref_alt: {
    Dwarf_Off o = 0;
    ok = dwarf_global_formref(a, &o, &e) == DW_DLV_OK;
    v->cls = AC_REF;
    v->ref = o;
    v->u = o;
    v->refIsInfo = IsInfo(d);
    break;
  }
  case DW_FORM_ref_sig8: {
    Dwarf_Sig8 sig{};
    ok = dwarf_formsig8(a, &sig, &e) == DW_DLV_OK;
    U64 sv = 0;
    for (int i = 0; i < 8; ++i) sv = (sv << 8) | (U8)sig.signature[i];
    v->cls = AC_SIG8;
    v->u = sv;
    break;
  }
  case DW_FORM_string:
  case DW_FORM_strp:
  case DW_FORM_line_strp:
  case DW_FORM_strx:
  case DW_FORM_strx1:
  case DW_FORM_strx2:
  case DW_FORM_strx3:
  case DW_FORM_strx4:
  case DW_FORM_GNU_str_index:
  case DW_FORM_GNU_strp_alt: {
    char* str = nullptr;
    ok = dwarf_formstring(a, &str, &e) == DW_DLV_OK;
    v->cls = AC_STRING;
    v->str = str;
    break;
  }
  case DW_FORM_block1:
  case DW_FORM_block2:
  case DW_FORM_block4:
  case DW_FORM_block:
  case DW_FORM_exprloc:
  case DW_FORM_data16: {
    if (form == DW_FORM_data16) {
      // The 16 bytes in place: a pointer into the section, valid as long as
      // the file is open.
      Dwarf_Form_Data16 d16;
      Dwarf_Off at = 0;
      ok = dwarf_formdata16(a, &d16, &e) == DW_DLV_OK && dwarf_attr_offset((Dwarf_Die)d, a, &at, &e) == DW_DLV_OK;
      const int sec = ok ? elf_internal::FindSection(s->f, IsInfo(d) ? ".debug_info" : ".debug_types") : -1;
      ok = sec >= 0 && at <= s->f->sections[sec].sh_size && s->f->sections[sec].sh_size - at >= 16 &&
           elf_internal::RangeInFile(s->f, s->f->sections[sec].sh_offset, s->f->sections[sec].sh_size);
      if (ok) {
        v->cls = AC_BLOCK;
        v->block = s->f->fileData + s->f->sections[sec].sh_offset + at;
        v->blockLen = 16;
        ok = !memcmp(v->block, d16.fd_data, 16);
      }
      break;
    }
    Dwarf_Block* b = nullptr;
    ok = dwarf_formblock(a, &b, &e) == DW_DLV_OK;
    if (ok) {
      v->cls = AC_BLOCK;
      v->block = static_cast<const U8*>(b->bl_data);
      v->blockLen = b->bl_len;
      dwarf_dealloc(s->dbg, b, DW_DLA_BLOCK);
    }
    break;
  }
  default:
    break;
  }
  if (!ok) {
    Drop(s, e);
    v->cls = AC_NONE;
  }
  dwarf_dealloc_attribute(a);
  return ok;
}

bool AddrByIndex(Session* s, Die d, U64 index, U64* pAddr) {
  Dwarf_Addr a = 0;
  Dwarf_Error e = nullptr;
  if (!s || !d || dwarf_debug_addr_index_to_addr((Dwarf_Die)d, index, &a, &e) != DW_DLV_OK) {
    if (s) Drop(s, e);
    return false;
  }
  *pAddr = a;
  return true;
}

Die FindSig8(Session* s, U64 signature) {
  Dwarf_Sig8 sig{};
  for (int i = 7; i >= 0; --i) {
    sig.signature[i] = (char)(signature & 0xFF);
    signature >>= 8;
  }
  Dwarf_Die d = nullptr;
  Dwarf_Bool isInfo = 0;
  Dwarf_Error e = nullptr;
  if (dwarf_find_die_given_sig8(s->dbg, &sig, &d, &isInfo, &e) != DW_DLV_OK) {
    Drop(s, e);
    return nullptr;
  }
  return d;
}

bool GetRanges(Session* s, Die d, U64 Base, std::vector<std::pair<U64, U64>>& out) {
  out.clear();
  Dwarf_Attribute a = FindAttr(d, DW_AT_ranges);
  if (!a) return false;
  Dwarf_Error e = nullptr;
  Dwarf_Half form = 0;
  bool ok = false;
  if (dwarf_whatform(a, &form, &e) != DW_DLV_OK) {
    Drop(s, e);
    dwarf_dealloc_attribute(a);
    return false;
  }
  const int ver = UnitVersion(d);
  if (ver >= 5) {
    Dwarf_Unsigned val = 0;
    int r;
    if (form == DW_FORM_rnglistx) r = dwarf_formudata(a, &val, &e);
    else {
      Dwarf_Off o = 0;
      r = dwarf_global_formref(a, &o, &e);
      val = o;
    }
    Dwarf_Rnglists_Head head = nullptr;
    Dwarf_Unsigned count = 0, globalOff = 0;
    if (r == DW_DLV_OK && ListSane(s, d, a, form, DW_AT_rnglists_base, ".debug_rnglists") &&
        dwarf_rnglists_get_rle_head(a, form, val, &head, &count, &globalOff, &e) == DW_DLV_OK) {
      ok = true;
      for (Dwarf_Unsigned i = 0; i < count; ++i) {
        unsigned len = 0, code = 0;
        Dwarf_Unsigned raw1 = 0, raw2 = 0, c1 = 0, c2 = 0;
        Dwarf_Bool unavailable = 0;
        if (dwarf_get_rnglists_entry_fields_a(head, i, &len, &code, &raw1, &raw2, &unavailable, &c1, &c2, &e) !=
            DW_DLV_OK) {
          Drop(s, e);
          break;
        }
        if (unavailable) continue;
        if (code == DW_RLE_end_of_list) break;
        if (code == DW_RLE_base_address || code == DW_RLE_base_addressx) continue;
        out.emplace_back(c1, c2);
      }
      dwarf_dealloc_rnglists_head(head);
    } else {
      Drop(s, e);
    }
  } else {
    Dwarf_Off o = 0;
    if (dwarf_global_formref(a, &o, &e) == DW_DLV_OK) {
      Dwarf_Ranges* rs = nullptr;
      Dwarf_Signed n = 0;
      Dwarf_Unsigned bytes = 0;
      Dwarf_Off real = 0;
      if (dwarf_get_ranges_b(s->dbg, o, (Dwarf_Die)d, &real, &rs, &n, &bytes, &e) == DW_DLV_OK) {
        ok = true;
        U64 base = Base;
        for (Dwarf_Signed i = 0; i < n; ++i) {
          if (rs[i].dwr_type == DW_RANGES_END) break;
          if (rs[i].dwr_type == DW_RANGES_ADDRESS_SELECTION) {
            base = rs[i].dwr_addr2;
            continue;
          }
          out.emplace_back(base + rs[i].dwr_addr1, base + rs[i].dwr_addr2);
        }
        dwarf_ranges_dealloc(s->dbg, rs, n);
      } else {
        Drop(s, e);
      }
    } else {
      Drop(s, e);
    }
  }
  dwarf_dealloc_attribute(a);
  return ok;
}

int GetLines(Session* s, Die cu, std::vector<LineRow>& rows, std::vector<std::string>& files) {
  rows.clear();
  files.clear();
  Dwarf_Unsigned ver = 0;
  Dwarf_Small tableCount = 0;
  Dwarf_Line_Context ctx = nullptr;
  Dwarf_Error e = nullptr;
  int r = dwarf_srclines_b((Dwarf_Die)cu, &ver, &tableCount, &ctx, &e);
  if (r == DW_DLV_NO_ENTRY) return 0;
  if (r != DW_DLV_OK) {
    Drop(s, e);
    return -1;
  }
  Dwarf_Line* lines = nullptr;
  Dwarf_Signed n = 0;
  if (dwarf_srclines_from_linecontext(ctx, &lines, &n, &e) != DW_DLV_OK) {
    Drop(s, e);
    dwarf_srclines_dealloc_b(ctx);
    return -1;
  }
  // The unit's files as full paths, in the numbering its rows use.
  std::vector<std::pair<std::string, U32>> seen;
  std::vector<std::pair<Dwarf_Unsigned, U32>> byNumber;
  rows.reserve((size_t)n);
  for (Dwarf_Signed i = 0; i < n; ++i) {
    LineRow row{};
    Dwarf_Addr ad = 0;
    Dwarf_Unsigned ln = 0, col = 0;
    Dwarf_Bool stmt = 0, endSeq = 0;
    if (dwarf_lineaddr(lines[i], &ad, &e) != DW_DLV_OK) Drop(s, e);
    if (dwarf_lineno(lines[i], &ln, &e) != DW_DLV_OK) Drop(s, e);
    if (dwarf_lineoff_b(lines[i], &col, &e) != DW_DLV_OK) Drop(s, e);
    if (dwarf_linebeginstatement(lines[i], &stmt, &e) != DW_DLV_OK) Drop(s, e);
    if (dwarf_lineendsequence(lines[i], &endSeq, &e) != DW_DLV_OK) Drop(s, e);
    // Paths are looked up once per file number of the unit.
    Dwarf_Unsigned fileNo = 0;
    if (dwarf_line_srcfileno(lines[i], &fileNo, &e) != DW_DLV_OK) {
      Drop(s, e);
      fileNo = ~0ull;
    }
    U32 idx = 0;
    bool found = false;
    for (const auto& p : byNumber)
      if (p.first == fileNo) {
        idx = p.second;
        found = true;
        break;
      }
    if (!found) {
      char* src = nullptr;
      std::string path;
      if (dwarf_linesrc(lines[i], &src, &e) == DW_DLV_OK && src) {
        path = src;
        dwarf_dealloc(s->dbg, src, DW_DLA_STRING);
      } else {
        Drop(s, e);
      }
      bool known = false;
      for (const auto& p : seen)
        if (p.first == path) {
          idx = p.second;
          known = true;
          break;
        }
      if (!known) {
        idx = (U32)files.size();
        files.push_back(path);
        seen.emplace_back(path, idx);
      }
      byNumber.emplace_back(fileNo, idx);
    }
    row.addr = ad;
    row.line = (U32)ln;
    row.column = (U32)col;
    row.fileIndex = idx;
    row.isStmt = stmt != 0;
    row.endSequence = endSeq != 0;
    rows.push_back(row);
  }
  dwarf_srclines_dealloc_b(ctx);
  return 1;
}

namespace {
// A reader of .debug_macro units (DWARF 5, and the GNU extension at version
// 4): header, then operations up to a 0 byte. Imports are followed, each
// unit once per call.
struct MacroReader {
  ELF_FILE* f = nullptr;
  const U8* sec = nullptr;
  U64 size = 0;
  const U8* str = nullptr;
  U64 strSize = 0;
  std::vector<U64> seen;

  U64 Read(const U8*& p, const U8* end, int n, bool* ok) {
    if (end - p < n) {
      *ok = false;
      return 0;
    }
    U64 v = 0;
    for (int i = 0; i < n; ++i) v |= (U64)p[f->bigEndian ? n - 1 - i : i] << (8 * i);
    p += n;
    return v;
  }
  U64 Uleb(const U8*& p, const U8* end, bool* ok) {
    U64 r = 0;
    if (!dwleb::ReadUleb(p, end, &r)) *ok = false;
    return r;
  }
  std::string Str(const U8*& p, const U8* end, bool* ok) {
    const U8* z = (const U8*)memchr(p, 0, end - p);
    if (!z) {
      *ok = false;
      return std::string();
    }
    std::string t((const char*)p, z - p);
    p = z + 1;
    return t;
  }
  std::string StrAt(U64 off, bool* ok) {
    if (!str || off >= strSize) {
      *ok = false;
      return std::string();
    }
    const U8* p = str + off;
    return Str(p, str + strSize, ok);
  }

  bool Unit(U64 off, std::vector<MacroRecord>& out, int depth) {
    if (depth > 64 || off >= size || seen.size() > 100000) return false;
    for (U64 x : seen)
      if (x == off) return true;
    seen.push_back(off);
    const U8* p = sec + off;
    const U8* end = sec + size;
    bool ok = true;
    Read(p, end, 2, &ok); // version
    const U64 flags = Read(p, end, 1, &ok);
    const int offSize = (flags & 1) ? 8 : 4;
    if (flags & 2) Read(p, end, offSize, &ok);
    if (flags & 4) {
      // Operand table of vendor opcodes: skipped, those opcodes are rejected.
      const U64 n = Read(p, end, 1, &ok);
      for (U64 i = 0; ok && i < n; ++i) {
        Read(p, end, 1, &ok);
        const U64 forms = Uleb(p, end, &ok);
        if (!ok || (U64)(end - p) < forms) return false;
        p += forms;
      }
    }
    while (ok && p < end) {
      const U8 op = *p++;
      if (op == 0) return true;
      MacroRecord m{op, 0, 0, {}};
      switch (op) {
      case 1: case 2: // define, undef
        m.line = (U32)Uleb(p, end, &ok);
        m.text = Str(p, end, &ok);
        break;
      case 3: // start_file
        m.line = (U32)Uleb(p, end, &ok);
        m.fileIndex = (U32)Uleb(p, end, &ok);
        break;
      case 4: // end_file
        break;
      case 5: case 6: // define_strp, undef_strp
        m.line = (U32)Uleb(p, end, &ok);
        m.text = StrAt(Read(p, end, offSize, &ok), &ok);
        break;
      case 7: { // import
        const U64 target = Read(p, end, offSize, &ok);
        if (ok) out.push_back(m);
        if (ok && !Unit(target, out, depth + 1)) return false;
        continue;
      }
      case 8: case 9: // define_sup, undef_sup: the strings live in another file
        m.line = (U32)Uleb(p, end, &ok);
        Read(p, end, offSize, &ok);
        continue;
      case 11: case 12: // define_strx, undef_strx: no .debug_str_offsets here
        m.line = (U32)Uleb(p, end, &ok);
        Uleb(p, end, &ok);
        continue;
      default:
        return false;
      }
      if (ok) out.push_back(std::move(m));
    }
    return ok;
  }
};
} // namespace

int GetMacros(Session* s, Die cu, std::vector<MacroRecord>& out) {
  out.clear();
  Dwarf_Error e = nullptr;
  AttrValue mv;
  const bool hasMacro = GetAttr(s, cu, DW_AT_macros, &mv) || GetAttr(s, cu, DW_AT_GNU_macros, &mv);
  if (hasMacro) {
    MacroReader r;
    r.f = s->f;
    const int im = elf_internal::FindSection(s->f, ".debug_macro");
    const int is = elf_internal::FindSection(s->f, ".debug_str");
    if (im < 0) return -1;
    const ELF_SECTION& sm = s->f->sections[im];
    if (!elf_internal::RangeInFile(s->f, sm.sh_offset, sm.sh_size)) return -1;
    r.sec = s->f->fileData + sm.sh_offset;
    r.size = sm.sh_size;
    if (is >= 0 && elf_internal::RangeInFile(s->f, s->f->sections[is].sh_offset, s->f->sections[is].sh_size)) {
      r.str = s->f->fileData + s->f->sections[is].sh_offset;
      r.strSize = s->f->sections[is].sh_size;
    }
    return r.Unit(mv.u, out, 0) ? 1 : -1;
  }
  // .debug_macinfo through DW_AT_macro_info.
  AttrValue v;
  if (!GetAttr(s, cu, DW_AT_macro_info, &v)) return 0;
  Dwarf_Signed n = 0;
  Dwarf_Macro_Details* det = nullptr;
  const int r = dwarf_get_macro_details(s->dbg, v.u, 0, &n, &det, &e);
  if (r == DW_DLV_NO_ENTRY) return 0;
  if (r != DW_DLV_OK) {
    Drop(s, e);
    return -1;
  }
  for (Dwarf_Signed i = 0; i < n; ++i) {
    const Dwarf_Macro_Details& d = det[i];
    if (d.dmd_type == 0) break;
    MacroRecord m{};
    // DW_MACINFO codes 1-4 equal the DW_MACRO ones; 255 vendor is "other".
    m.code = d.dmd_type == DW_MACINFO_vendor_ext ? 0xFF : d.dmd_type;
    m.line = d.dmd_lineno > 0 ? (U32)d.dmd_lineno : 0;
    m.fileIndex = d.dmd_fileindex > 0 ? (U32)d.dmd_fileindex : 0;
    if (d.dmd_macro) m.text = d.dmd_macro;
    out.push_back(std::move(m));
  }
  dwarf_dealloc(s->dbg, det, DW_DLA_STRING);
  return 1;
}

namespace {
// Operations of one location description; block operands are copied, as
// libdwarf hands them out as pointers into its section data.
// DW_OP_addrx and DW_OP_constx (and their GNU forerunners) name an entry of
// .debug_addr: they come out as DW_OP_addr and DW_OP_constu with the value,
// so that evaluation needs no second table.
bool ReadOps(Session* s, Die d, Dwarf_Locdesc_c desc, Dwarf_Unsigned n, std::vector<LocOp>& ops) {
  Dwarf_Error e = nullptr;
  for (Dwarf_Unsigned j = 0; j < n && j < 100000; ++j) {
    LocOp op{};
    Dwarf_Small atom = 0;
    Dwarf_Unsigned o1 = 0, o2 = 0, o3 = 0, br = 0;
    if (dwarf_get_location_op_value_c(desc, j, &atom, &o1, &o2, &o3, &br, &e) != DW_DLV_OK) {
      Drop(s, e);
      return false;
    }
    op.atom = atom;
    op.op1 = o1;
    op.op2 = o2;
    op.op3 = o3;
    op.offset = br;
    if ((atom == DW_OP_implicit_value || atom == DW_OP_entry_value || atom == DW_OP_GNU_entry_value) && o2 &&
        o1 < 0x10000)
      op.block.assign(reinterpret_cast<const U8*>(o2), reinterpret_cast<const U8*>(o2) + o1);
    op.op2 = op.block.empty() ? o2 : 0;
    if (atom == DW_OP_addrx || atom == DW_OP_GNU_addr_index || atom == DW_OP_constx ||
        atom == DW_OP_GNU_const_index) {
      Dwarf_Addr v = 0;
      if (dwarf_debug_addr_index_to_addr((Dwarf_Die)d, o1, &v, &e) == DW_DLV_OK) {
        op.atom = (atom == DW_OP_addrx || atom == DW_OP_GNU_addr_index) ? DW_OP_addr : DW_OP_constu;
        op.op1 = v;
      } else {
        Drop(s, e);
      }
    }
    ops.push_back(std::move(op));
  }
  return true;
}
} // namespace

int GetLocations(Session* s, Die d, U32 code, std::vector<LocEntry>& out) {
  out.clear();
  Dwarf_Attribute a = FindAttr(d, code);
  if (!a) return 0;
  Dwarf_Error e = nullptr;
  Dwarf_Half form = 0;
  if (dwarf_whatform(a, &form, &e) != DW_DLV_OK ||
      (UnitVersion(d) >= 5 && !ListSane(s, d, a, form, DW_AT_loclists_base, ".debug_loclists"))) {
    Drop(s, e);
    dwarf_dealloc_attribute(a);
    return -1;
  }
  Dwarf_Loc_Head_c head = nullptr;
  Dwarf_Unsigned count = 0;
  int r = dwarf_get_loclist_c(a, &head, &count, &e);
  if (r != DW_DLV_OK) {
    Drop(s, e);
    dwarf_dealloc_attribute(a);
    return r == DW_DLV_NO_ENTRY ? 0 : -1;
  }
  unsigned kind = 0;
  if (dwarf_get_loclist_head_kind(head, &kind, &e) != DW_DLV_OK) Drop(s, e);
  int result = 1;
  for (Dwarf_Unsigned i = 0; i < count && i < 100000; ++i) {
    Dwarf_Small lle = 0, source = 0;
    Dwarf_Unsigned rawLo = 0, rawHi = 0, nOps = 0, exprOff = 0, descOff = 0;
    Dwarf_Bool unavailable = 0;
    Dwarf_Addr lo = 0, hi = 0;
    Dwarf_Locdesc_c desc = nullptr;
    if (dwarf_get_locdesc_entry_d(head, i, &lle, &rawLo, &rawHi, &unavailable, &lo, &hi, &nOps, &desc, &source,
                                  &exprOff, &descOff, &e) != DW_DLV_OK) {
      Drop(s, e);
      result = -1;
      break;
    }
    if (unavailable) continue;
    LocEntry ent{};
    ent.isExpression = kind == DW_LKIND_expression;
    ent.lo = ent.isExpression ? 0 : lo;
    ent.hi = ent.isExpression ? ~0ull : hi;
    if (!ReadOps(s, d, desc, nOps, ent.ops)) {
      result = -1;
      break;
    }
    out.push_back(std::move(ent));
  }
  dwarf_loc_head_c_dealloc(head);
  dwarf_dealloc_attribute(a);
  return result;
}

int CfiLoad(Session* s, int* pRaColumn) {
  *pRaColumn = -1;
  if (s->fdes) return 1;
  Dwarf_Error e = nullptr;
  int r = dwarf_get_fde_list(s->dbg, &s->cies, &s->cieCount, &s->fdes, &s->fdeCount, &e);
  if (r == DW_DLV_NO_ENTRY) r = dwarf_get_fde_list_eh(s->dbg, &s->cies, &s->cieCount, &s->fdes, &s->fdeCount, &e);
  if (r == DW_DLV_NO_ENTRY) return 0;
  if (r != DW_DLV_OK) {
    Drop(s, e);
    s->cies = nullptr;
    s->fdes = nullptr;
    s->cieCount = s->fdeCount = 0;
    return -1;
  }
  if (s->cieCount > 0) {
    Dwarf_Unsigned bytes = 0, codeAlign = 0, initLen = 0;
    Dwarf_Small ver = 0;
    char* aug = nullptr;
    Dwarf_Signed dataAlign = 0;
    Dwarf_Half ra = 0, offSize = 0;
    Dwarf_Ptr init = nullptr;
    if (dwarf_get_cie_info_b(s->cies[0], &bytes, &ver, &aug, &codeAlign, &dataAlign, &ra, &init, &initLen, &offSize,
                             &e) == DW_DLV_OK)
      *pRaColumn = ra;
    else
      Drop(s, e);
  }
  return 1;
}

int CfiFdeCount(Session* s) { return (int)s->fdeCount; }

bool CfiFdeRange(Session* s, int i, U64* pLow, U64* pHigh) {
  if (i < 0 || i >= s->fdeCount) return false;
  Dwarf_Addr lo = 0;
  Dwarf_Unsigned len = 0, fdeLen = 0;
  Dwarf_Ptr bytes = nullptr;
  Dwarf_Off cieOff = 0, fdeOff = 0;
  Dwarf_Signed cieIdx = 0;
  Dwarf_Error e = nullptr;
  if (dwarf_get_fde_range(s->fdes[i], &lo, &len, &bytes, &fdeLen, &cieOff, &cieIdx, &fdeOff, &e) != DW_DLV_OK) {
    Drop(s, e);
    return false;
  }
  *pLow = lo;
  *pHigh = lo + len;
  return true;
}

int CfiRulesAt(Session* s, U64 pc, int count, std::vector<CfiRule>& regs, CfiRule& cfa, U64* pRowPc) {
  regs.clear();
  if (!s->fdes) return 0;
  Dwarf_Fde fde = nullptr;
  Dwarf_Addr lo = 0, hi = 0;
  Dwarf_Error e = nullptr;
  int r = dwarf_get_fde_at_pc(s->fdes, pc, &fde, &lo, &hi, &e);
  if (r == DW_DLV_NO_ENTRY) return 0;
  if (r != DW_DLV_OK) {
    Drop(s, e);
    return -1;
  }
  if (pc < lo || pc >= hi) return 0;
  if (count > CFI_TABLE_SIZE) count = CFI_TABLE_SIZE;
  s->ruleBuf.assign(CFI_TABLE_SIZE, Dwarf_Regtable_Entry3_s{});
  Dwarf_Regtable3 table{};
  table.rt3_reg_table_size = CFI_TABLE_SIZE;
  table.rt3_rules = s->ruleBuf.data();
  Dwarf_Addr rowPc = 0;
  if (dwarf_get_fde_info_for_all_regs3(fde, pc, &table, &rowPc, &e) != DW_DLV_OK) {
    Drop(s, e);
    return -1;
  }
  auto conv = [](const Dwarf_Regtable_Entry3_s& x) {
    CfiRule c{};
    c.offsetRelevant = x.dw_offset_relevant;
    c.valueType = x.dw_value_type;
    c.reg = x.dw_regnum;
    c.offset = (I64)x.dw_offset_or_block_len;
    return c;
  };
  cfa = conv(table.rt3_cfa_rule);
  for (int i = 0; i < count; ++i) regs.push_back(conv(s->ruleBuf[i]));
  if (pRowPc) *pRowPc = rowPc;
  return 1;
}

int CfiRowPcs(Session* s, int i, std::vector<U64>& pcs) {
  pcs.clear();
  U64 lo = 0, hi = 0;
  if (!CfiFdeRange(s, i, &lo, &hi)) return -1;
  U64 pc = lo;
  for (int n = 0; n < 100000 && pc < hi; ++n) {
    Dwarf_Small vt = 0;
    Dwarf_Signed rel = 0, reg = 0, off = 0;
    Dwarf_Ptr block = nullptr;
    Dwarf_Addr rowPc = 0, next = 0;
    Dwarf_Bool more = 0;
    Dwarf_Error e = nullptr;
    if (dwarf_get_fde_info_for_cfa_reg3_b(s->fdes[i], pc, &vt, &rel, &reg, &off, &block, &rowPc, &more, &next, &e) !=
        DW_DLV_OK) {
      Drop(s, e);
      return -1;
    }
    if (pcs.empty() || pcs.back() != rowPc) pcs.push_back(rowPc);
    if (!more || next <= pc) break;
    pc = next;
  }
  return 1;
}

const char* FormName(U32 form) {
  const char* n = nullptr;
  if (dwarf_get_FORM_name(form, &n) != DW_DLV_OK || !n) return "<unknown form>";
  return n;
}

const char* AttrName(U32 code) {
  const char* n = nullptr;
  if (dwarf_get_AT_name(code, &n) != DW_DLV_OK || !n) return "<unknown attribute>";
  return n;
}

} // namespace dwb
