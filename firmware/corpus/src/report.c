/*
 * Status report of the controller, formatted with the C library: used only
 * in builds that link newlib.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <math.h>
#include "board.h"

char report_line[96];
double report_rms;

static int cmp_raw(const void *a, const void *b)
{
    const chan_rec_t *ra = *(const chan_rec_t *const *)a;
    const chan_rec_t *rb = *(const chan_rec_t *const *)b;
    return (int)ra->raw - (int)rb->raw;
}

/* Sorts the channels by raw value into a heap block and prints them. */
int report_status(int round)
{
    const chan_rec_t **order = malloc(NUM_RECS * sizeof *order);
    double sq = 0.0;
    int i, n;

    if (!order)
        return -1;
    for (i = 0; i < NUM_RECS; i++) {
        order[i] = &recs[i];
        sq += (double)recs[i].raw * recs[i].raw;
    }
    qsort(order, NUM_RECS, sizeof *order, cmp_raw);
    report_rms = sqrt(sq / NUM_RECS);
    n = snprintf(report_line, sizeof report_line, "%s r%d: min %s=%u max %s=%u rms %ld",
                 BOARD_NAME, round, order[0]->name, order[0]->raw,
                 order[NUM_RECS - 1]->name, order[NUM_RECS - 1]->raw, (long)report_rms);
    free(order);
    return n > 0 ? (int)strtol(report_line + strlen(BOARD_NAME) + 2, NULL, 10) : n;
}
