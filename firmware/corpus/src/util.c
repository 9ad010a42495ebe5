/*
 * Freestanding replacements for the few C library routines the firmware
 * needs. Builds against the C library leave them out.
 */
#include "board.h"

#ifndef USE_NEWLIB
void *memset(void *dst, int c, unsigned int n)
{
    u8_t *d = (u8_t *)dst;
    while (n--)
        *d++ = (u8_t)c;
    return dst;
}

void *memcpy(void *dst, const void *src, unsigned int n)
{
    u8_t *d = (u8_t *)dst;
    const u8_t *s = (const u8_t *)src;
    while (n--)
        *d++ = *s++;
    return dst;
}

unsigned int strlen(const char *s)
{
    const char *p = s;
    while (*p)
        p++;
    return (unsigned int)(p - s);
}
#endif

int util_strcmp(const char *a, const char *b)
{
    while (*a && *a == *b) {
        a++;
        b++;
    }
    return (int)(u8_t)*a - (int)(u8_t)*b;
}
