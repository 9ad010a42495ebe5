// Mutation fuzzing of the ELF layer under ASan/UBSan: corpus files and small
// crafted executables, with bytes, header words and lengths changed, are
// opened from memory and walked through every query.
#include "elf/elf.h"
#include "elf/elf_builder.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <gtest/gtest.h>
#include <cstring>
#include <random>
#include <vector>

namespace {
volatile U32 g_Sink;

void Walk(ELF_FILE* f) {
  U32 acc = ELF_GetEndian(f) + ELF_GetEntryPoint(f) + U32(ELF_GetClass(f)) + ELF_GetFileSize(f);
  const int ns = ELF_GetNumSections(f);
  for (int i = 0; i < ns; ++i) {
    acc += U32(strlen(ELF_GetSectionName(f, i))) + ELF_GetSectionAddr(f, i) + ELF_GetSectionSize(f, i);
    const U8* d = ELF_GetSectionData(f, i);
    const U32 sz = ELF_GetSectionSize(f, i);
    if (d && sz) acc += d[0] + d[sz - 1];
  }
  acc += U32(ELF_FindSection(f, ".text")) + U32(ELF_FindSectionByInfo(f, 1));
  const int np = ELF_GetNumSegments(f);
  for (int i = 0; i < np; ++i) {
    const U8* d = ELF_GetSegmentData(f, i);
    const U32 sz = ELF_GetSegmentFileSize(f, i);
    if (d && sz) acc += d[0] + d[sz - 1];
    acc += ELF_GetSegmentDataSkip(f, i);
  }
  ELF_PROGRAM_DATA blocks[16];
  const int nb = ELF_GetProgramData(f, blocks, 16);
  for (int i = 0; i < nb && i < 16; ++i)
    if (blocks[i].Size) acc += blocks[i].pData[0] + blocks[i].pData[blocks[i].Size - 1];
  for (int i = 0; i < ELF_GetNumImageSegments(f); ++i) {
    const ELF_IMAGE_SEGMENT* s = ELF_GetImageSegment(f, i);
    const U8* p = ELF_ReadImage(f, s->vaddr, s->vaddr + (s->filesz ? s->filesz : 1));
    if (p) acc += p[0];
  }
  const int nsym = ELF_GetNumSymbols(f);
  for (int i = 0; i < nsym; ++i) {
    const ELF_SYM_HANDLE h = ELF_GetSymbolHandle(f, i);
    acc += U32(strlen(ELF_GetSymbolName(h))) + ELF_GetSymbolValue(h) + ELF_GetSymbolSize(h) +
           U32(ELF_GetSymbolType(h) + ELF_GetSymbolSection(h));
    if (i % 7 == 0) {
      const U32 v = ELF_GetSymbolValue(h);
      acc += U32(ELF_FindSymbolAt(f, v, true, -1) + ELF_FindSymbolAt(f, v + 3, false, 0) +
                 ELF_FindSymbolAt(f, v, true, 2));
      ELF_SYM_HANDLE out[4];
      acc += U32(ELF_GetFunctionSymbols(f, v, i & 8, out, 4));
      ELF_RELOC_ENTRY e;
      acc += U32(ELF_FindRelocEntry(f, v, 0, &e));
      U32 val;
      const char* name;
      acc += U32(ELF_FindSymbolByReloc(f, v, &val, &name));
    }
  }
  for (int i = 0; i < ELF_GetNumFunctionSymbols(f); ++i) acc += ELF_GetSymbolSize(ELF_GetFunctionSymbol(f, i));
  g_Sink = acc;
}

std::vector<std::vector<U8>> Seeds() {
  std::vector<std::vector<U8>> seeds;
  QDirIterator it(QString::fromLocal8Bit(qgetenv("TAVIT_SOURCE_DIR")) + "/firmware", {"*.elf"}, QDir::Files,
                  QDirIterator::Subdirectories);
  while (it.hasNext()) {
    QFile f(it.next());
    if (f.size() > 64 * 1024 || !f.open(QIODevice::ReadOnly)) continue;
    const QByteArray b = f.readAll();
    seeds.emplace_back(b.begin(), b.end());
  }
  for (bool big : {false, true}) {
    TestElfBuilder b;
    b.BigEndian = big;
    const int text = b.AddSection(".text", 1, 6, 0x08000000, 0x80);
    const int data = b.AddSection(".data", 1, 3, 0x20000000, 0x20);
    b.AddSection(".bss", 8, 3, 0x20000020, 0x20);
    b.AddSymbol("f", 0x08000001, 0, 2, U16(text));
    b.AddSymbol("g", 0x08000041, 0x10, 13, U16(text));
    b.AddSymbol("o", 0x20000000, 0, 1, U16(data));
    b.AddSymbol("$t", 0x08000000, 0, 0, U16(text));
    b.Segments.push_back({1, text, text, true, 0});
    b.Segments.push_back({1, data, data, false, 0x100});
    TestElfBuilder::Section rel;
    rel.Name = ".rel.text";
    rel.Type = 9;
    rel.Flags = 0;
    rel.EntSize = 8;
    rel.Info = U32(text);
    rel.Link = 6;
    for (U8 c : {0x10, 0, 0, 8, 0x0A, 1, 0, 0}) rel.Data.push_back(c);
    b.Sections.push_back(rel);
    seeds.push_back(b.Build());
  }
  return seeds;
}

TEST(ElfFuzz, MutatedFilesNeverFault) {
  const std::vector<std::vector<U8>> seeds = Seeds();
  ASSERT_GE(seeds.size(), 2u);
  std::mt19937 rng(12345);
  ELF_SetInstAlignment(2);
  ELF_AddRelocation("*", 0x100);
  const U32 interesting[] = {0, 1, 2, 0x7F, 0x80, 0xFF, 0xFFFF, 0x7FFFFFFF, 0x80000000u, 0xFFFFFFFFu, 0xFFFFFFF0u};
  constexpr int kRuns = 100000;
  int opened = 0;
  std::vector<U8> buf;
  for (int run = 0; run < kRuns; ++run) {
    const std::vector<U8>& seed = seeds[rng() % seeds.size()];
    buf = seed;
    const int nMut = 1 + int(rng() % 6);
    for (int k = 0; k < nMut; ++k) {
      const U32 what = rng() % 8;
      // Mutations favour the headers and the tables they point to.
      U32 pos;
      if (rng() % 2) pos = rng() % std::min<size_t>(buf.size(), 52 + 32 * 4);
      else pos = U32(rng() % buf.size());
      if (what < 3) {
        buf[pos] = U8(rng());
      } else if (what < 5 && pos + 4 <= buf.size()) {
        const U32 v = interesting[rng() % (sizeof(interesting) / sizeof(interesting[0]))] + U32(rng() % 3) - 1;
        memcpy(&buf[pos], &v, 4);
      } else if (what == 5 && buf.size() > 1) {
        buf.resize(1 + rng() % buf.size());
      } else if (what == 6) {
        // Section header table: change a field of a random entry.
        if (buf.size() < 52) continue;
        U32 shoff;
        memcpy(&shoff, &buf[32], 4);
        if (buf[5] == 2) shoff = __builtin_bswap32(shoff);
        const U64 p = U64(shoff) + (rng() % 24) * 40 + (rng() % 10) * 4;
        if (p + 4 <= buf.size()) {
          const U32 v = interesting[rng() % (sizeof(interesting) / sizeof(interesting[0]))];
          memcpy(&buf[p], &v, 4);
        }
      } else {
        buf[pos] ^= U8(1u << (rng() % 8));
      }
    }
    ELF_FILE* f = ELF_OpenMemory(buf.data(), U32(buf.size()), true);
    if (!f) continue;
    ++opened;
    Walk(f);
    ELF_Close(f);
  }
  ELF_ClearRelocations();
  // Enough mutants must get past the header check to exercise the tables.
  EXPECT_GT(opened, kRuns / 10);
}
} // namespace
