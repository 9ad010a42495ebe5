/*
 * Main loop of the demo controller: mode state machine, command table,
 * tick counter and a few algorithms that the debugger likes to look at.
 */
#include "board.h"

/* Initialised globals of every basic kind: their values live in the image. */
char               g_char      = 'T';
signed char        g_schar     = -5;
unsigned char      g_uchar     = 200;
short              g_short     = -1234;
unsigned short     g_ushort    = 54321;
int                g_int       = -123456;
unsigned int       g_uint      = 0xDEADBEEFu;
long               g_long      = -7654321L;
unsigned long      g_ulong     = 4000000000UL;
long long          g_llong     = -1234567890123LL;
unsigned long long g_ullong    = 0x0123456789ABCDEFULL;
float              g_float     = 3.14159f;
double             g_double    = 2.718281828459045;
_Bool              g_bool      = 1;
op_mode_t          g_mode      = MODE_IDLE;
enum chan_kind     g_kind      = CHAN_CURRENT;
int                g_array[8]  = { 1, 1, 2, 3, 5, 8, 13, 21 };
short              g_matrix[3][4] = { { 1, 2, 3, 4 }, { 5, 6, 7, 8 }, { 9, 10, 11, 12 } };
char               g_text[16]  = "hello, tavit";
const char        *g_greeting  = "Ready.";
const char *const  g_mode_names[] = { "idle", "run", "calibrate" };
int               *g_int_ptr   = &g_array[3];
int              (*g_array_ptr)[8] = &g_array;
const u32_t        g_build_id  = 0x20240611u;
volatile u32_t     g_ticks     = 0;
u32_t              g_bss_word;
u8_t               g_bss_block[64];
static int         s_file_counter = 42;
static u16_t       s_lookup[4] = { 0x1111, 0x2222, 0x3333, 0x4444 };

ctrl_reg_t g_ctrl = { .bits = { .enable = 1, .mode = 5, .prescale = 9, .irq_mask = 0xABC, .trim = -3 } };

union {
    float f;
    u32_t u;
    u8_t  b[4];
} g_pun = { .f = -1.5f };

struct {
    u16_t  version;
    u8_t   flags;
    struct {
        s32_t x, y;
    } origin;
    real_t scale[2];
    const char *label;
} g_config = { 0x0102, 0x80, { -10, 20 }, { 0.5f, 2.0f }, "cfg" };

#ifdef USE_NEWLIB
int report_status(int round);
#endif

static int cmd_reset(int arg);
static int cmd_start(int arg);
static int cmd_stop(int arg);
static int cmd_echo(int arg);

const struct cmd_entry g_commands[] = {
    { 'R', 0, cmd_reset },
    { 'S', 1, cmd_start },
    { 'P', 1, cmd_stop },
    { 'E', 2, cmd_echo },
};

cmd_handler_t g_default_handler = cmd_echo;
int (*g_fib_ptr)(int) = fib;

static node_t g_nodes[7] = {
    { 40, &g_nodes[1], &g_nodes[2] },
    { 20, &g_nodes[3], &g_nodes[4] },
    { 60, &g_nodes[5], &g_nodes[6] },
    { 10, 0, 0 },
    { 30, 0, 0 },
    { 50, 0, 0 },
    { 70, 0, 0 },
};
node_t *g_root = &g_nodes[0];

uart_regs_t *const UART1 = (uart_regs_t *)0x40011000u;

/* Core peripherals used at start-up. */
typedef struct {
    io_reg_t CSR;
    io_reg_t RVR;
    io_reg_t CVR;
    const io_reg_t CALIB;
} systick_regs_t;

#define SYSTICK    ((systick_regs_t *)0xE000E010u)
#define SCB_CPACR  (*(io_reg_t *)0xE000ED88u)
#define SYSTICK_RELOAD (SYSCLK_HZ / TICKS_PER_SEC / 10u - 1u)

/* Called by the reset handler before .data and .bss are set up: it must not
 * touch either. Grants access to the FPU (ignored on parts without one) and
 * starts the tick timer. */
void SystemInit(void)
{
    SCB_CPACR |= (0xFu << 20);
    SYSTICK->RVR = SYSTICK_RELOAD;
    SYSTICK->CVR = 0;
    SYSTICK->CSR = BIT(0) | BIT(1) | BIT(2);
}

static int cmd_reset(int arg)
{
    g_mode = MODE_IDLE;
    if (arg == 0)
        g_ticks = 0;
    return arg;
}

static int cmd_start(int arg)
{
    g_mode = MODE_RUN;
    return arg + 1;
}

static int cmd_stop(int arg)
{
    g_mode = (arg >= 1000000) ? MODE_SHUTDOWN : MODE_IDLE;
    return -arg;
}

static int cmd_echo(int arg)
{
    return arg;
}

/* Plain recursion: what the call stack view shows as a deep chain. */
int fib(int n)
{
    if (n < 2)
        return n;
    return fib(n - 1) + fib(n - 2);
}

/* Recursion over a tree: depth of the binary search tree. */
static int tree_depth(const node_t *n)
{
    int l, r;
    if (!n)
        return 0;
    l = tree_depth(n->left);
    r = tree_depth(n->right);
    return 1 + MAX(l, r);
}

/* A dense switch: compiled to a branch table. */
static int mode_weight(int m)
{
    int w;
    switch (m) {
    case 0:  w = 3;   break;
    case 1:  w = 17;  break;
    case 2:  w = 29;  break;
    case 3:  w = 41;  break;
    case 4:  w = 53;  break;
    case 5:  w = 67;  break;
    case 6:  w = 79;  break;
    case 7:  w = 97;  break;
    case 8:  w = 101; break;
    case 9:  w = 113; break;
    default: w = -1;  break;
    }
    return w;
}

/* The tick handler keeps its own count in a static local. */
void SysTick_Handler(void)
{
    static u32_t sub_ticks = 0;
    if (++sub_ticks >= 10) {
        sub_ticks = 0;
        g_ticks++;
    }
}

static u32_t mix_state(u32_t seed)
{
    static u32_t history[4];
    static unsigned idx;
    u32_t v = rotl32(seed ^ g_uint, 7) + s_lookup[idx & 3u];
    history[idx++ & 3u] = v;
    return v ^ history[(idx + 1u) & 3u];
}

static real_t update_setpoint(real_t current, real_t target)
{
    const real_t k = 0.125f;
    real_t err = target - current;
    if (err > 10.0f)
        err = 10.0f;
    else if (err < -10.0f)
        err = -10.0f;
    return current + k * err;
}

int main(void)
{
    int round = 0;
    u32_t acc = 0;
    real_t setpoint = 20.0f;
    const u32_t words[4] = { 1u, 2u, 3u, 0x10000u };

    sensors_init();
    comm_init();
    g_mode = MODE_RUN;

    for (;;) {
        int i, w;
        round++;
        w = mode_weight(round % 12);
        acc += (u32_t)clamp_int(w, 0, 100);
        acc = mix_state(acc);
        acc += asm_sum_words(words, 4) + asm_swap_halves(acc) + asm_table[round & 3];
        for (i = 0; i < (int)ARRAY_LEN(g_commands); i++) {
            if (g_commands[i].min_len <= (round & 3))
                acc += (u32_t)g_commands[i].handler(round);
        }
        acc += (u32_t)g_default_handler(w);
        if (sensors_poll(round) > 0)
            setpoint = update_setpoint(setpoint, sensors_average(CHAN_TEMP));
        g_float = setpoint;
        if ((round & 15) == 0) {
            acc += (u32_t)g_fib_ptr(10) + (u32_t)tree_depth(g_root);
            acc ^= sensors_checksum();
            comm_feed((const u8_t *)g_text, (int)strlen(g_text));
            s_file_counter++;
#ifdef USE_NEWLIB
            acc += (u32_t)report_status(round);
#endif
        }
        g_bss_word = acc;
        g_bss_block[round & 63] = (u8_t)acc;
        asm_delay(100);
        if (g_mode == MODE_SHUTDOWN)
            break;
    }
    return (int)acc;
}
