// Queries on an open ELF file: header fields, sections, segments, program
// data, the image segment table and relocation entries.
#include "elf/elf_file.h"

#include <cstring>

using namespace elf_internal;

namespace {
char s_acSectionName[512]; // shared text buffer of ELF_GetSectionName

const ELF_SECTION* Section(const ELF_FILE* f, int i) {
  if (!ELF_IsValidFile(f) || i < 0 || (size_t)i >= f->sections.size()) return nullptr;
  return &f->sections[i];
}

const ELF_SEGMENT* Segment(const ELF_FILE* f, int i) {
  if (!ELF_IsValidFile(f) || i < 0 || (size_t)i >= f->segments.size()) return nullptr;
  return &f->segments[i];
}

// One header field of section or segment i; 0 if there is no such entry.
U32 SectionField(const ELF_FILE* f, int i, U32 ELF_SECTION::*Field) {
  const ELF_SECTION* s = Section(f, i);
  return s ? s->*Field : 0;
}

U32 SegmentField(const ELF_FILE* f, int i, U32 ELF_SEGMENT::*Field) {
  const ELF_SEGMENT* p = Segment(f, i);
  return p ? p->*Field : 0;
}

const U8* SegmentData(const ELF_FILE* f, const ELF_SEGMENT& p) {
  if ((I32)p.p_offset < 0 || p.p_filesz == 0 || !RangeInFile(f, p.p_offset, p.p_filesz)) return nullptr;
  return f->fileData + p.p_offset;
}

// Offset of the lowest allocated, non-empty section that lies wholly in the
// segment's file image; 0 if there is none.
U32 DataSkip(const ELF_FILE* f, const ELF_SEGMENT& p) {
  const U64 lo = p.p_vaddr, hi = (U64)p.p_vaddr + p.p_filesz;
  bool found = false;
  U32 lowest = 0;
  for (const ELF_SECTION& s : f->sections) {
    if (!(s.sh_flags & ELF_SHF_ALLOC) || s.sh_size == 0) continue;
    if (s.sh_addr < lo || (U64)s.sh_addr + s.sh_size > hi) continue;
    if (!found || s.sh_addr < lowest) lowest = s.sh_addr;
    found = true;
  }
  return found ? lowest - p.p_vaddr : 0;
}

U32 Reloc(U32 Address) { return HaveRelocations() ? ELF_RelocateAddress(Address, 1, 0) : Address; }

U32 Read32(const ELF_FILE* f, const U8* p) {
  U32 v;
  memcpy(&v, p, 4);
  return f->bigEndian ? __builtin_bswap32(v) : v;
}
} // namespace

namespace elf_internal {
void BuildImageSegments(ELF_FILE* f) {
  f->imageSegments.clear();
  for (const ELF_SEGMENT& p : f->segments)
    f->imageSegments.push_back({p.p_vaddr, p.p_paddr, p.p_filesz, p.p_type, SegmentData(f, p)});
}
}

// ---- header ----------------------------------------------------------------

int ELF_GetEndian(const ELF_FILE* pFile) {
  if (!ELF_IsValidFile(pFile)) return 2;
  return pFile->header.e_ident[5] == 2 ? 1 : pFile->header.e_ident[5] == 1 ? 0 : 2;
}

U32 ELF_GetEntryPoint(const ELF_FILE* pFile) {
  if (!ELF_IsValidFile(pFile)) return 0xFFFFFFFF;
  U32 e = pFile->header.e_entry;
  if (e == 0xFFFFFFFF) return e;
  return Reloc(ELF_AlignAddress(e));
}

int ELF_GetClass(const ELF_FILE* pFile) { return ELF_IsValidFile(pFile) ? pFile->header.e_ident[4] : -1; }
U32 ELF_GetFileSize(const ELF_FILE* pFile) { return ELF_IsValidFile(pFile) ? pFile->fileSize : 0; }
int ELF_GetMachine(const ELF_FILE* pFile) { return ELF_IsValidFile(pFile) ? pFile->header.e_machine : -1; }
const ELF_HEADER* ELF_GetHeader(const ELF_FILE* pFile) { return ELF_IsValidFile(pFile) ? &pFile->header : nullptr; }
const U8* ELF_GetFileData(const ELF_FILE* pFile) { return ELF_IsValidFile(pFile) ? pFile->fileData : nullptr; }

// ---- sections --------------------------------------------------------------

int ELF_GetNumSections(const ELF_FILE* pFile) { return ELF_IsValidFile(pFile) ? (int)pFile->sections.size() : 0; }

const char* ELF_GetSectionName(const ELF_FILE* pFile, int Index) {
  const char* n = Section(pFile, Index) ? SectionName(pFile, (U32)Index) : nullptr;
  strncpy(s_acSectionName, n ? n : "", sizeof(s_acSectionName) - 1);
  s_acSectionName[sizeof(s_acSectionName) - 1] = 0;
  return s_acSectionName;
}

U32 ELF_GetSectionType(const ELF_FILE* pFile, int Index) { return SectionField(pFile, Index, &ELF_SECTION::sh_type); }
U32 ELF_GetSectionFlags(const ELF_FILE* pFile, int Index) { return SectionField(pFile, Index, &ELF_SECTION::sh_flags); }
U32 ELF_GetSectionAddr(const ELF_FILE* pFile, int Index) {
  const ELF_SECTION* s = Section(pFile, Index);
  return s ? Reloc(s->sh_addr) : 0;
}
U32 ELF_GetSectionOffset(const ELF_FILE* pFile, int Index) { return SectionField(pFile, Index, &ELF_SECTION::sh_offset); }
U32 ELF_GetSectionSize(const ELF_FILE* pFile, int Index) { return SectionField(pFile, Index, &ELF_SECTION::sh_size); }
U32 ELF_GetSectionEntSize(const ELF_FILE* pFile, int Index) { return SectionField(pFile, Index, &ELF_SECTION::sh_entsize); }
const ELF_SECTION* ELF_GetSectionHeader(const ELF_FILE* pFile, int Index) { return Section(pFile, Index); }

const U8* ELF_GetSectionData(const ELF_FILE* pFile, int Index) {
  return Section(pFile, Index) ? SectionData(pFile, (U32)Index) : nullptr;
}

int ELF_FindSection(const ELF_FILE* pFile, const char* sName) {
  return ELF_IsValidFile(pFile) ? FindSection(pFile, sName) : -1;
}

int ELF_FindSectionByInfo(const ELF_FILE* pFile, U32 Info) {
  if (!ELF_IsValidFile(pFile)) return -1;
  for (size_t i = 0; i < pFile->sections.size(); ++i)
    if (pFile->sections[i].sh_info == Info) return (int)i;
  return -1;
}

// ---- segments --------------------------------------------------------------

int ELF_GetNumSegments(const ELF_FILE* pFile) { return ELF_IsValidFile(pFile) ? (int)pFile->segments.size() : 0; }
U32 ELF_GetSegmentType(const ELF_FILE* pFile, int Index) { return SegmentField(pFile, Index, &ELF_SEGMENT::p_type); }
U32 ELF_GetSegmentVAddr(const ELF_FILE* pFile, int Index) { return SegmentField(pFile, Index, &ELF_SEGMENT::p_vaddr); }
U32 ELF_GetSegmentPAddr(const ELF_FILE* pFile, int Index) { return SegmentField(pFile, Index, &ELF_SEGMENT::p_paddr); }
U32 ELF_GetSegmentFileSize(const ELF_FILE* pFile, int Index) { return SegmentField(pFile, Index, &ELF_SEGMENT::p_filesz); }
const ELF_SEGMENT* ELF_GetSegmentHeader(const ELF_FILE* pFile, int Index) { return Segment(pFile, Index); }
const U8* ELF_GetSegmentData(const ELF_FILE* pFile, int Index) {
  const ELF_SEGMENT* p = Segment(pFile, Index);
  return p ? SegmentData(pFile, *p) : nullptr;
}
U32 ELF_GetSegmentDataSkip(const ELF_FILE* pFile, int Index) {
  const ELF_SEGMENT* p = Segment(pFile, Index);
  return p ? DataSkip(pFile, *p) : 0;
}

int ELF_GetProgramData(const ELF_FILE* pFile, ELF_PROGRAM_DATA* pOut, int MaxOut) {
  if (!ELF_IsValidFile(pFile)) return -1;
  int count = 0;
  for (const ELF_SEGMENT& p : pFile->segments) {
    if (p.p_type != ELF_PT_LOAD) continue;
    const U8* data = SegmentData(pFile, p);
    if (!data) continue;
    if (p.p_vaddr != p.p_paddr) {
      const U32 diff = p.p_vaddr > p.p_paddr ? p.p_vaddr - p.p_paddr : p.p_paddr - p.p_vaddr;
      ELF_ReportLine("Virtual segment address differs from physical address by 0x%X bytes", diff);
    }
    U32 load = p.p_paddr, run = p.p_vaddr, len = p.p_filesz;
    const U32 skip = DataSkip(pFile, p);
    if (skip <= len) {
      data += skip;
      load += skip;
      run += skip;
      len -= skip;
    }
    if (len == 0) continue;
    if (count < MaxOut && pOut) pOut[count] = {load, run, len, data};
    ++count;
  }
  return count;
}

int ELF_GetNumImageSegments(const ELF_FILE* pFile) {
  return ELF_IsValidFile(pFile) ? (int)pFile->imageSegments.size() : 0;
}

const ELF_IMAGE_SEGMENT* ELF_GetImageSegment(const ELF_FILE* pFile, int Index) {
  if (!ELF_IsValidFile(pFile) || Index < 0 || (size_t)Index >= pFile->imageSegments.size()) return nullptr;
  return &pFile->imageSegments[Index];
}

const U8* ELF_ReadImage(const ELF_FILE* pFile, U32 Lo, U32 Hi) {
  if (!ELF_IsValidFile(pFile) || Hi <= Lo) return nullptr;
  for (const ELF_IMAGE_SEGMENT& s : pFile->imageSegments)
    if (s.pData && s.vaddr <= Lo && (U64)Hi <= (U64)s.vaddr + s.filesz) return s.pData + (Lo - s.vaddr);
  return nullptr;
}

// ---- relocation entries -----------------------------------------------------

// The relocation section that applies to the section holding Address; -1 if
// none.
static int FindRelocSection(const ELF_FILE* f, U32 Address, U32 SectionType) {
  int holder = -1;
  for (size_t i = 1; i < f->sections.size(); ++i) {
    const ELF_SECTION& s = f->sections[i];
    if (SectionType && s.sh_type != SectionType) continue;
    if (s.sh_size && s.sh_addr <= Address && (U64)Address < (U64)s.sh_addr + s.sh_size) {
      holder = (int)i;
      break;
    }
  }
  if (holder < 0) return -1;
  for (size_t i = 0; i < f->sections.size(); ++i) {
    const ELF_SECTION& s = f->sections[i];
    if ((s.sh_type == ELF_SHT_REL || s.sh_type == ELF_SHT_RELA) && s.sh_info == (U32)holder) return (int)i;
  }
  return -1;
}

int ELF_FindRelocEntry(const ELF_FILE* pFile, U32 Address, U32 SectionType, ELF_RELOC_ENTRY* pEntry) {
  if (!ELF_IsValidFile(pFile)) return -1;
  const ELF_FILE* f = pFile;
  const int relSec = FindRelocSection(f, Address, SectionType);
  if (relSec < 0) return -1;
  const ELF_SECTION& rs = f->sections[relSec];
  const bool rela = rs.sh_type == ELF_SHT_RELA;
  const U32 minEnt = rela ? 12 : 8;
  const U8* data = SectionData(f, (U32)relSec);
  if (!data || rs.sh_entsize < minEnt) return -1;
  const int n = (int)(rs.sh_size / rs.sh_entsize);
  const int at = FindAtOrBelow(n, Address, [&](int i) { return Read32(f, data + (size_t)i * rs.sh_entsize); });
  if (at < 0) return -1;
  if (pEntry) {
    const U8* p = data + (size_t)at * rs.sh_entsize;
    const U32 info = Read32(f, p + 4);
    pEntry->r_offset = Read32(f, p);
    pEntry->Symbol = info >> 8;
    pEntry->Type = info & 255;
    pEntry->Addend = rela ? (I32)Read32(f, p + 8) : 0;
    pEntry->IsRela = rela;
  }
  return at;
}

int ELF_FindSymbolByReloc(const ELF_FILE* pFile, U32 Address, U32* pValue, const char** psName) {
  ELF_RELOC_ENTRY e;
  if (ELF_FindRelocEntry(pFile, Address, 0, &e) < 0 || e.r_offset != Address) return -1;
  // The symbol index counts within the symbol table that the relocation
  // section links to; map it to a row of the concatenated symbol list.
  const ELF_FILE* f = pFile;
  const int relSec = FindRelocSection(f, Address, 0);
  U32 row = e.Symbol;
  if (relSec >= 0) {
    for (const ELF_SYMTAB_PART& p : f->symtabParts)
      if (p.Section == f->sections[relSec].sh_link) {
        if (e.Symbol >= p.NumRows) return -1;
        row = p.FirstRow + e.Symbol;
      }
  }
  if (row >= f->symbols.size()) return -1;
  if (pValue) *pValue = Reloc(f->symbols[row].st_value);
  if (psName) {
    ELF_SYM_HANDLE h = ELF_GetSymbolHandle(f, (int)row);
    *psName = ELF_GetSymbolName(h);
  }
  return (int)row;
}
