/*
 * Serial protocol: receive ring, frame parser state machine, CRC and
 * command dispatch.
 */
#include "board.h"

typedef enum {
    RX_WAIT_SYNC,
    RX_HEADER,
    RX_LENGTH,
    RX_PAYLOAD,
    RX_CRC_HI,
    RX_CRC_LO,
    RX_DONE,
    RX_ERROR
} rx_state_t;

struct frame_header {
    u8_t sync;
    u8_t type    : 4;
    u8_t version : 2;
    u8_t ack     : 1;
    u8_t urgent  : 1;
    u16_t length;
};

ring_t rx_ring;
ring_t tx_ring = { { 0x55, 0xAA }, 0, 2, &rx_ring };
static rx_state_t rx_state = RX_WAIT_SYNC;
static struct frame_header cur_header;
static u8_t payload[RING_SIZE];
static u16_t payload_len;
u32_t frames_ok, frames_bad;

static const u16_t crc_table[16] = {
    0x0000, 0x1021, 0x2042, 0x3063, 0x4084, 0x50A5, 0x60C6, 0x70E7,
    0x8108, 0x9129, 0xA14A, 0xB16B, 0xC18C, 0xD1AD, 0xE1CE, 0xF1EF,
};

/* File-static helper: sensors.c has its own function of the same name. */
static int helper(int c)
{
    return (c >= 'a' && c <= 'z') ? c - 'a' + 'A' : c;
}

static int ring_put(ring_t *r, u8_t c)
{
    u16_t next = (u16_t)((r->head + 1u) % RING_SIZE);
    if (next == r->tail)
        return -1;
    r->buf[r->head] = c;
    r->head = next;
    return 0;
}

static int ring_get(ring_t *r, u8_t *c)
{
    if (r->head == r->tail)
        return -1;
    *c = r->buf[r->tail];
    r->tail = (u16_t)((r->tail + 1u) % RING_SIZE);
    return 0;
}

void comm_init(void)
{
    memset(&rx_ring, 0, sizeof rx_ring);
    rx_ring.next = &tx_ring;
    rx_state = RX_WAIT_SYNC;
    payload_len = 0;
}

u16_t comm_crc16(const u8_t *data, int len)
{
    u16_t crc = 0xFFFF;
    while (len-- > 0) {
        u8_t b = *data++;
        crc = (u16_t)((crc << 4) ^ crc_table[((crc >> 12) ^ (b >> 4)) & 0x0F]);
        crc = (u16_t)((crc << 4) ^ crc_table[((crc >> 12) ^ (b & 0x0F)) & 0x0F]);
    }
    return crc;
}

/* One byte through the frame state machine. */
static rx_state_t rx_step(rx_state_t st, u8_t c)
{
    static u16_t crc_rx;
    switch (st) {
    case RX_WAIT_SYNC:
        if (c == 0x7E) {
            cur_header.sync = c;
            return RX_HEADER;
        }
        return RX_WAIT_SYNC;
    case RX_HEADER:
        cur_header.type = c & 0x0F;
        cur_header.version = (c >> 4) & 3;
        cur_header.ack = (c >> 6) & 1;
        cur_header.urgent = (c >> 7) & 1;
        return RX_LENGTH;
    case RX_LENGTH:
        cur_header.length = c;
        payload_len = 0;
        if (c > RING_SIZE)
            return RX_ERROR;
        return c ? RX_PAYLOAD : RX_CRC_HI;
    case RX_PAYLOAD:
        payload[payload_len++] = (u8_t)helper(c);
        return payload_len >= cur_header.length ? RX_CRC_HI : RX_PAYLOAD;
    case RX_CRC_HI:
        crc_rx = (u16_t)(c << 8);
        return RX_CRC_LO;
    case RX_CRC_LO:
        crc_rx |= c;
        return crc_rx == comm_crc16(payload, payload_len) ? RX_DONE : RX_ERROR;
    case RX_DONE:
    case RX_ERROR:
    default:
        return RX_WAIT_SYNC;
    }
}

int comm_feed(const u8_t *data, int len)
{
    int i, done = 0;
    u8_t c;
    for (i = 0; i < len; i++)
        (void)ring_put(&rx_ring, data[i]);
    while (ring_get(&rx_ring, &c) == 0) {
        rx_state = rx_step(rx_state, c);
        if (rx_state == RX_DONE) {
            frames_ok++;
            done++;
            rx_state = RX_WAIT_SYNC;
        } else if (rx_state == RX_ERROR) {
            frames_bad++;
            rx_state = RX_WAIT_SYNC;
        }
    }
    return done;
}

int comm_dispatch(char code, int arg)
{
    extern const struct cmd_entry g_commands[];
    int i;
    code = (char)helper(code);
    for (i = 0; i < 4; i++) {
        if (g_commands[i].code == code)
            return g_commands[i].handler(arg);
    }
    return -1;
}
