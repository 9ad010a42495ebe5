/*
 * Sensor channels: raw samples, scaling, filtering and limits.
 */
#include "board.h"

chan_rec_t recs[NUM_RECS] = {
    { "temp",    CHAN_TEMP,    512, -12, 0.125f,  85.0f, { 0, 0, 0x0001 } },
    { "vbus",    CHAN_VOLT,   3300,   4, 0.001f,   5.5f, { 0, 0, 0x0002 } },
    { "imotor",  CHAN_CURRENT, 120,   0, 0.0125f,  2.0f, { 0, 0, 0x0004 } },
    { "rpm",     CHAN_SPEED,  1500,   0, 1.0f,  6000.0f, { 0, 0, 0x0008 } },
    { "tboard",  CHAN_TEMP,    498,  -8, 0.125f,  70.0f, { 0, 0, 0x0010 } },
};

static real_t filter_state[NUM_RECS];
static const real_t filter_alpha = 0.25f;
u32_t sensor_errors;

/* File-static helper: comm.c has its own function of the same name. */
static int helper(int raw, int offset)
{
    int v = raw + offset;
    return clamp_int(v, 0, 4095);
}

static real_t low_pass(real_t prev, real_t in)
{
    return prev + filter_alpha * (in - prev);
}

void sensors_init(void)
{
    unsigned i;
    for (i = 0; i < NUM_RECS; i++) {
        filter_state[i] = 0.0f;
        recs[i].stats.hits = 0;
        recs[i].stats.misses = 0;
    }
    sensor_errors = 0;
}

int sensors_poll(int round)
{
    static int last_round = -1;
    int i, fresh = 0;

    if (round == last_round)
        return 0;
    last_round = round;
    for (i = 0; i < NUM_RECS; i++) {
        chan_rec_t *r = &recs[i];
        real_t v;
        r->raw = (u16_t)helper(r->raw + ((round * (i + 1)) & 7) - 3, 0);
        v = scale_raw(r);
        filter_state[i] = low_pass(filter_state[i], v);
        if (filter_state[i] > r->limit) {
            r->stats.misses++;
            sensor_errors++;
        } else {
            r->stats.hits++;
            fresh++;
        }
    }
    return fresh;
}

real_t sensors_average(enum chan_kind kind)
{
    real_t sum = 0.0f;
    int n = 0, i;
    for (i = 0; i < NUM_RECS; i++) {
        if (recs[i].kind == kind) {
            sum += filter_state[i];
            n++;
        }
    }
    return n ? sum / (real_t)n : 0.0f;
}

u32_t sensors_checksum(void)
{
    u32_t c = 0;
    int i;
    for (i = 0; i < NUM_RECS; i++)
        c = rotl32(c, 5) ^ recs[i].raw ^ ((u32_t)recs[i].stats.flags << 16);
    return c;
}
