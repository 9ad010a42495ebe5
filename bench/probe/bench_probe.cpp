// Speed of the simulated target: instructions per second free-running, with
// streaming trace and statistics on, single steps per second, and how fast
// the demo program's target time passes when unpaced.
#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>
#include <elf.h>
#include <fstream>
#include <map>

#include "device/vorden_api.h"

namespace {

struct Image {
  std::vector<std::pair<U32, std::vector<U8>>> segs;
  std::map<std::string, U32> syms;
};

Image Load(const std::string& path) {
  Image img;
  std::ifstream f(path, std::ios::binary);
  std::vector<U8> b((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  if (b.size() < sizeof(Elf32_Ehdr)) {
    fprintf(stderr, "cannot read %s\n", path.c_str());
    exit(1);
  }
  auto* eh = (const Elf32_Ehdr*)b.data();
  for (int i = 0; i < eh->e_phnum; ++i) {
    auto* ph = (const Elf32_Phdr*)(b.data() + eh->e_phoff + i * eh->e_phentsize);
    if (ph->p_type == PT_LOAD && ph->p_filesz)
      img.segs.push_back({ph->p_paddr, std::vector<U8>(b.begin() + ph->p_offset, b.begin() + ph->p_offset + ph->p_filesz)});
  }
  auto* sh = (const Elf32_Shdr*)(b.data() + eh->e_shoff);
  for (int i = 0; i < eh->e_shnum; ++i) {
    if (sh[i].sh_type != SHT_SYMTAB) continue;
    auto* syms = (const Elf32_Sym*)(b.data() + sh[i].sh_offset);
    const char* str = (const char*)b.data() + sh[sh[i].sh_link].sh_offset;
    for (size_t k = 0; k < sh[i].sh_size / sizeof(Elf32_Sym); ++k) img.syms[str + syms[k].st_name] = syms[k].st_value & ~1u;
  }
  return img;
}

void Exec(const char* cmd) {
  char out[256] = {};
  if (VORDENARM_ExecCommand(cmd, out, sizeof out) < 0) fprintf(stderr, "%s: %s\n", cmd, out);
}

U32 Cycles() {
  U32 v = 0;
  VORDENARM_ReadMemEx(0x4FFF0010, 4, &v, 4);
  return v;
}

U64 Cycles64() {
  U32 v[2] = {};
  VORDENARM_ReadMemEx(0x4FFF0010, 8, v, 4);
  return ((U64)v[1] << 32) | v[0];
}

// Connected, downloaded, reset, halted at main with g_TestCase set.
Image Start(const char* device, const std::string& elf, int testCase) {
  VORDENARM_Close();
  VORDENARM_SelectUSB(0);
  VORDENARM_Open();
  Exec("SimPowerOff");
  VORDENARM_Close();
  VORDENARM_Open();
  Exec((std::string("device=") + device).c_str());
  VORDENARM_Connect();
  Exec("SimUnpaced=1");
  Image img = Load(elf);
  VORDENARM_BeginDownload(0);
  for (auto& s : img.segs) VORDENARM_WriteMemEx(s.first, (U32)s.second.size(), s.second.data(), 0);
  VORDENARM_EndDownload();
  VORDENARM_Reset();
  VORDENARM_EnableSoftBPs(1);
  int bp = VORDENARM_SetBPEx(img.syms["main"], 0xFFFFFFF0);
  VORDENARM_GoEx(0, 1);
  while (VORDENARM_IsHalted() != 1) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  VORDENARM_ClrBPEx(bp);
  if (testCase >= 0) VORDENARM_WriteU32(img.syms["g_TestCase"], (U32)testCase);
  return img;
}

// Runs the target for a while; the result is the CPU time the process used
// (the emulation thread does nearly all of it), which a busy machine distorts
// less than wall time. The wall time comes back in *pWall.
double RunFor(double seconds, U64* pCycles, double* pWall = nullptr) {
  U64 c0 = Cycles64();
  auto t0 = std::chrono::steady_clock::now();
  std::clock_t k0 = std::clock();
  VORDENARM_GoEx(0, 1);
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  VORDENARM_Halt();
  double cpu = double(std::clock() - k0) / CLOCKS_PER_SEC;
  double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  *pCycles = Cycles64() - c0;
  if (pWall) *pWall = wall;
  return cpu;
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir = argc > 1 ? argv[1] : std::string(TAVIT_FIRMWARE_DIR);
  std::string tests = dir + "/tests_cortex-m3.elf", demo = dir + "/demo_cortex-m4.elf";
  double secs = 2.0;
  U64 cyc;

  Start("Cortex-M3", tests, 12);  // endless counting loop
  double wall;
  double w = RunFor(secs, &cyc, &wall);
  printf("(rates per second of CPU time; per wall second in brackets)\n");
  printf("free-running counting loop:          %7.1f M instructions/s [%.1f]\n", cyc / w / 1e6, cyc / wall / 1e6);

  Start("Cortex-M3", tests, 12);
  VORDEN_STRACE_Start();
  w = RunFor(secs, &cyc, &wall);
  printf("  with streaming trace and counters: %7.1f M instructions/s [%.1f]\n", cyc / w / 1e6, cyc / wall / 1e6);
  VORDEN_STRACE_Stop();

  // Collatz with SysTick at 10 kHz (exceptions, IT blocks), to the end.
  Image img = Start("Cortex-M3", tests, 5);
  VORDENARM_SetBPEx(img.syms["TestDone"], 0xFFFFFFF0);
  VORDEN_STRACE_Start();
  U64 c0 = Cycles64();
  std::clock_t k0 = std::clock();
  VORDENARM_GoEx(0, 1);
  while (VORDENARM_IsHalted() != 1) std::this_thread::sleep_for(std::chrono::microseconds(200));
  w = double(std::clock() - k0) / CLOCKS_PER_SEC;
  printf("Collatz + 10 kHz SysTick, trace on:  %7.1f M instructions/s (%.2f M instructions)\n",
         (Cycles64() - c0) / w / 1e6, (Cycles64() - c0) / 1e6);
  VORDEN_STRACE_Stop();

  // The demo firmware: mostly asleep in WFI, so target time runs far ahead.
  Start("Cortex-M4", demo, -1);
  w = RunFor(secs, &cyc, &wall);
  printf("demo firmware unpaced:               %7.1f s of target time per wall second\n", cyc / 50e6 / wall);

  Start("Cortex-M3", tests, 12);
  int n = 0;
  auto t0 = std::chrono::steady_clock::now();
  double el = 0;
  while (el < 1.0) {
    for (int i = 0; i < 1000; ++i) VORDENARM_Step();
    n += 1000;
    el = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  }
  printf("single steps:                        %7.0f steps per wall second\n", n / el);
  (void)Cycles;
  VORDENARM_Close();
  return 0;
}
