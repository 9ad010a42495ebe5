// vorden-simrun: runs a firmware ELF on the simulated target and shows what
// it prints on the UART, the LVT terminal and ITM port 0, and its LED.
//   vorden-simrun [--device NAME] [--seconds S] [--unpaced] FILE.elf
#include <elf.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "device/vorden_api.h"

static bool Download(const char* path, U32& entrySP, U32& entryPC) {
  std::ifstream f(path, std::ios::binary);
  std::vector<U8> b((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  if (b.size() < sizeof(Elf32_Ehdr) || memcmp(b.data(), ELFMAG, SELFMAG) != 0) return false;
  auto* eh = (const Elf32_Ehdr*)b.data();
  if (eh->e_ident[EI_CLASS] != ELFCLASS32 || eh->e_machine != EM_ARM) return false;
  VORDENARM_BeginDownload(0);
  for (int i = 0; i < eh->e_phnum; ++i) {
    size_t off = eh->e_phoff + (size_t)i * eh->e_phentsize;
    if (off + sizeof(Elf32_Phdr) > b.size()) return false;
    auto* ph = (const Elf32_Phdr*)(b.data() + off);
    if (ph->p_type != PT_LOAD || !ph->p_filesz) continue;
    if ((size_t)ph->p_offset + ph->p_filesz > b.size()) return false;
    if (VORDENARM_WriteMemEx(ph->p_paddr, ph->p_filesz, b.data() + ph->p_offset, 0) != (int)ph->p_filesz) {
      fprintf(stderr, "cannot write 0x%08X..0x%08X\n", ph->p_paddr, ph->p_paddr + ph->p_filesz);
      return false;
    }
  }
  if (VORDENARM_EndDownload() < 0) return false;
  (void)entrySP;
  (void)entryPC;
  return true;
}

int main(int argc, char** argv) {
  const char* device = "Cortex-M4";
  const char* file = nullptr;
  double seconds = 10;
  bool unpaced = false;
  for (int i = 1; i < argc; ++i) {
    if (!strcmp(argv[i], "--device") && i + 1 < argc) device = argv[++i];
    else if (!strcmp(argv[i], "--seconds") && i + 1 < argc) seconds = atof(argv[++i]);
    else if (!strcmp(argv[i], "--unpaced")) unpaced = true;
    else if (argv[i][0] != '-') file = argv[i];
    else {
      fprintf(stderr, "unknown option %s\n", argv[i]);
      return 2;
    }
  }
  if (!file) {
    fprintf(stderr, "usage: vorden-simrun [--device NAME] [--seconds S] [--unpaced] FILE.elf\n");
    return 2;
  }
  char err[256] = {};
  VORDENARM_SelectUSB(0);
  if (const char* e = VORDENARM_Open()) {
    fprintf(stderr, "%s\n", e);
    return 1;
  }
  if (VORDENARM_ExecCommand((std::string("device=") + device).c_str(), err, sizeof err) < 0 || VORDENARM_Connect() != 0) {
    fprintf(stderr, "cannot connect to %s: %s\n", device, err);
    return 1;
  }
  if (unpaced) VORDENARM_ExecCommand("SimUnpaced=1", err, sizeof err);
  char uartPath[] = "/tmp/vorden-simrun-uart-XXXXXX";
  int fd = mkstemp(uartPath);
  if (fd < 0 || VORDENARM_ExecCommand((std::string("SimUARTFile=") + uartPath).c_str(), err, sizeof err) < 0) {
    fprintf(stderr, "cannot capture the UART: %s\n", err);
    return 1;
  }
  FILE* uart = fdopen(fd, "rb");
  U32 sp, pc;
  if (!Download(file, sp, pc)) {
    fprintf(stderr, "cannot load %s\n", file);
    return 1;
  }
  VORDENARM_Reset();
  VORDENARM_SWO_EnableTarget(50000000, 1000000, 0, 1);
  VORDEN_LVTERMINAL_Control(0, nullptr);
  VORDENARM_GoEx(0, 1);
  auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  U32 led = 2;
  while (std::chrono::steady_clock::now() < end && VORDENARM_IsHalted() == 0) {
    char buf[256];
    size_t u;
    while ((u = fread(buf, 1, sizeof buf, uart)) > 0) printf("[UART] %.*s", (int)u, buf);
    clearerr(uart);
    int n = VORDEN_LVTERMINAL_Read(0, buf, sizeof buf);
    if (n > 0) printf("[LVT] %.*s", n, buf);
    n = VORDENARM_SWO_ReadStimulus(0, (U8*)buf, sizeof buf);
    if (n > 0) {
      printf("[SWO] %.*s", n, buf);
      U32 un = (U32)n;
      VORDENARM_SWO_Control(2, &un);
    }
    U32 l = 0;
    VORDENARM_ReadMemEx(0x4FFF000C, 4, &l, 4);
    if (l != led) {
      printf("[LED] %s\n", l ? "on" : "off");
      led = l;
    }
    fflush(stdout);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (VORDENARM_IsHalted() > 0) {
    U32 idx = VORDENARM_REG_PC;
    U64 v = 0;
    U8 st;
    VORDENARM_ReadRegs(&idx, &v, &st, 1);
    printf("target halted at 0x%08X\n", (U32)v);
  }
  VORDENARM_Halt();
  VORDENARM_ExecCommand("SimUARTFile=", err, sizeof err);
  fclose(uart);
  remove(uartPath);
  VORDENARM_Close();
  return 0;
}
