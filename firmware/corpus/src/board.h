/*
 * Board definitions for the demo controller: a small motor/sensor node on an
 * STM32F407-like part (flash at 0x08000000, SRAM at 0x20000000).
 */
#ifndef BOARD_H
#define BOARD_H

#define BOARD_NAME        "node-f4"
#define BOARD_REV         3
#define HSE_HZ            8000000u
#define SYSCLK_HZ         (HSE_HZ * 21u)
#define TICKS_PER_SEC     1000
#define NUM_CHANNELS      4
#define NUM_RECS          5
#define RING_SIZE         32
#define MAX(a, b)         ((a) > (b) ? (a) : (b))
#define MIN(a, b)         ((a) < (b) ? (a) : (b))
#define ARRAY_LEN(a)      (sizeof(a) / sizeof((a)[0]))
#define BIT(n)            (1u << (n))

/* A chain of typedefs, as vendor headers like to build them. */
typedef unsigned char      u8_t;
typedef unsigned short     u16_t;
typedef unsigned int       u32_t;
typedef unsigned long long u64_t;
typedef signed char        s8_t;
typedef short              s16_t;
typedef int                s32_t;
typedef long long          s64_t;
typedef u32_t              reg32_t;
typedef volatile reg32_t   vreg32_t;
typedef vreg32_t           io_reg_t;
typedef float              real_t;
typedef real_t             celsius_t;

typedef enum {
    MODE_IDLE = 0,
    MODE_RUN = 1,
    MODE_CALIBRATE = 2,
    MODE_FAULT = 7,
    MODE_SHUTDOWN = -1
} op_mode_t;

enum chan_kind {
    CHAN_TEMP,
    CHAN_VOLT,
    CHAN_CURRENT,
    CHAN_SPEED
};

/* A peripheral register block with a bit-field view of its control word. */
typedef struct {
    unsigned enable   : 1;
    unsigned mode     : 3;
    unsigned prescale : 4;
    unsigned          : 8;
    unsigned irq_mask : 12;
    signed   trim     : 4;
} ctrl_bits_t;

typedef union {
    reg32_t     word;
    ctrl_bits_t bits;
    u8_t        bytes[4];
} ctrl_reg_t;

typedef struct {
    io_reg_t   SR;
    ctrl_reg_t CR;
    io_reg_t   DR;
    io_reg_t   BRR;
    u32_t      reserved[2];
} uart_regs_t;

/* Record of one measurement channel: recs[] is an array of these. */
struct chan_rec {
    const char      *name;
    enum chan_kind   kind;
    u16_t            raw;
    s16_t            offset;
    real_t           gain;
    celsius_t        limit;
    struct {
        u8_t  hits;
        u8_t  misses;
        u16_t flags;
    } stats;
};
typedef struct chan_rec chan_rec_t;

typedef int (*cmd_handler_t)(int arg);
typedef void (*isr_t)(void);

struct cmd_entry {
    char           code;
    u8_t           min_len;
    cmd_handler_t  handler;
};

typedef struct ring {
    u8_t  buf[RING_SIZE];
    u16_t head;
    u16_t tail;
    struct ring *next;
} ring_t;

typedef struct node {
    int          value;
    struct node *left;
    struct node *right;
} node_t;

/* Small helpers used everywhere; one is forced inline even without optimisation. */
static inline int clamp_int(int v, int lo, int hi)
{
    if (v < lo)
        return lo;
    if (v > hi)
        return hi;
    return v;
}

static inline __attribute__((always_inline)) u32_t rotl32(u32_t v, unsigned n)
{
    n &= 31u;
    return n ? (v << n) | (v >> (32u - n)) : v;
}

static inline real_t scale_raw(const chan_rec_t *r)
{
    return (real_t)((int)r->raw + r->offset) * r->gain;
}

/* sensors.c */
extern chan_rec_t recs[NUM_RECS];
void  sensors_init(void);
int   sensors_poll(int round);
real_t sensors_average(enum chan_kind kind);
u32_t sensors_checksum(void);

/* comm.c */
extern ring_t rx_ring;
void  comm_init(void);
int   comm_feed(const u8_t *data, int len);
int   comm_dispatch(char code, int arg);
u16_t comm_crc16(const u8_t *data, int len);

/* util.c */
void *memset(void *dst, int c, unsigned int n);
void *memcpy(void *dst, const void *src, unsigned int n);
unsigned int strlen(const char *s);
int   util_strcmp(const char *a, const char *b);

/* Hand-written assembler */
u32_t asm_sum_words(const u32_t *p, u32_t n);    /* with call frame info */
u32_t asm_swap_halves(u32_t v);                  /* with call frame info */
void  asm_delay(u32_t loops);                    /* no call frame info */
u32_t asm_read_ipsr(void);                       /* no call frame info, size 0 */
extern const u32_t asm_table[];                  /* object symbol, size 0 */

/* main.c */
void SystemInit(void);
extern volatile u32_t g_ticks;
extern op_mode_t g_mode;
int fib(int n);

#endif /* BOARD_H */
