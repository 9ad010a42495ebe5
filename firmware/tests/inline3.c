/* A static inline function whose body the compiler places in three callers
   at -O2: a breakpoint on its line stands for three code addresses. The
   line is marked MIX_LINE; tests find it by that mark. */
volatile unsigned g_sink;

static inline __attribute__((always_inline)) unsigned mix(unsigned v)
{
    return (v * 2654435761u) ^ (v >> 13); /* MIX_LINE */
}

void __attribute__((noinline)) first(unsigned x) { g_sink = mix(x) + 1u; }
void __attribute__((noinline)) second(unsigned x) { g_sink = mix(x + 7u) - 3u; }
void __attribute__((noinline)) third(unsigned x) { g_sink = mix(x ^ 0x55u) << 1; }

int main(void)
{
    for (;;) {
        first(g_sink);
        second(g_sink);
        third(g_sink);
    }
}
