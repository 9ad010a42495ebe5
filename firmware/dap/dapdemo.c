// Program of the debug adapter tests and benchmark, for the MPS2-AN385
// board (the simulator's and QEMU's): a struct local with nested members,
// a struct of 100 members, calls to step into and out of, a global that a
// data breakpoint can catch. Lines the tests look up carry a "@" marker.
#include <stdint.h>

struct Point {
  int32_t x;
  int32_t y;
};

struct Shape {
  uint32_t id;
  struct Point origin;
  struct Point size;
};

struct Wide {
  uint32_t m0;
  uint32_t m1;
  uint32_t m2;
  uint32_t m3;
  uint32_t m4;
  uint32_t m5;
  uint32_t m6;
  uint32_t m7;
  uint32_t m8;
  uint32_t m9;
  uint32_t m10;
  uint32_t m11;
  uint32_t m12;
  uint32_t m13;
  uint32_t m14;
  uint32_t m15;
  uint32_t m16;
  uint32_t m17;
  uint32_t m18;
  uint32_t m19;
  uint32_t m20;
  uint32_t m21;
  uint32_t m22;
  uint32_t m23;
  uint32_t m24;
  uint32_t m25;
  uint32_t m26;
  uint32_t m27;
  uint32_t m28;
  uint32_t m29;
  uint32_t m30;
  uint32_t m31;
  uint32_t m32;
  uint32_t m33;
  uint32_t m34;
  uint32_t m35;
  uint32_t m36;
  uint32_t m37;
  uint32_t m38;
  uint32_t m39;
  uint32_t m40;
  uint32_t m41;
  uint32_t m42;
  uint32_t m43;
  uint32_t m44;
  uint32_t m45;
  uint32_t m46;
  uint32_t m47;
  uint32_t m48;
  uint32_t m49;
  uint32_t m50;
  uint32_t m51;
  uint32_t m52;
  uint32_t m53;
  uint32_t m54;
  uint32_t m55;
  uint32_t m56;
  uint32_t m57;
  uint32_t m58;
  uint32_t m59;
  uint32_t m60;
  uint32_t m61;
  uint32_t m62;
  uint32_t m63;
  uint32_t m64;
  uint32_t m65;
  uint32_t m66;
  uint32_t m67;
  uint32_t m68;
  uint32_t m69;
  uint32_t m70;
  uint32_t m71;
  uint32_t m72;
  uint32_t m73;
  uint32_t m74;
  uint32_t m75;
  uint32_t m76;
  uint32_t m77;
  uint32_t m78;
  uint32_t m79;
  uint32_t m80;
  uint32_t m81;
  uint32_t m82;
  uint32_t m83;
  uint32_t m84;
  uint32_t m85;
  uint32_t m86;
  uint32_t m87;
  uint32_t m88;
  uint32_t m89;
  uint32_t m90;
  uint32_t m91;
  uint32_t m92;
  uint32_t m93;
  uint32_t m94;
  uint32_t m95;
  uint32_t m96;
  uint32_t m97;
  uint32_t m98;
  uint32_t m99;
};

volatile uint32_t g_counter;  // incremented once per loop
volatile uint32_t g_watched;  // written once per loop (data breakpoint target)
struct Wide g_wide;

__attribute__((noinline)) int32_t Area(const struct Shape* s) {
  int32_t w = s->size.x;  // @area-first
  int32_t h = s->size.y;
  return w * h;  // @area-return
}

__attribute__((noinline)) void FillWide(struct Wide* w, uint32_t seed) {
  uint32_t* p = &w->m0;
  for (int i = 0; i < 100; ++i) p[i] = seed + (uint32_t)i;
}

int main(void) {
  struct Shape shape = {7, {1, 2}, {3, 4}};  // @main-first
  uint32_t total = 0;
  for (;;) {
    g_counter = g_counter + 1;  // @loop-top
    FillWide(&g_wide, g_counter);
    shape.origin.x = (int32_t)g_counter;
    total += (uint32_t)Area(&shape);  // @call-area
    g_watched = total;  // @watched
    shape.id = total;  // @after-watched
  }
}
