// Second unit of the frame test program: a static named like one in
// frames_main.c.
static int twin = 22;

__attribute__((noinline)) int OtherTwin(void) { return twin++; }
