/* Aligned allocation, power-of-two rounding and fast block copies. */
#ifndef KELO_MEM_H
#define KELO_MEM_H

#include <stddef.h>

#include <kelo/export.h>

KELO_BEGIN_DECLS

/* size bytes aligned to align (a power of two; 0 and values below 8 mean 8).
 * NULL with EINVAL when align is not a power of two; NULL for size 0.
 * Release only with kelo_free. */
KELO_EXPORT void *kelo_malloc(size_t size, size_t align);
/* Releases a block of kelo_malloc; NULL does nothing. */
KELO_EXPORT void kelo_free(void *p);
/* (value + align - 1) & -align for a power-of-two align; nothing checked. */
KELO_EXPORT size_t kelo_round(size_t value, size_t align);
/* Copies (len / 64 + 1) * 64 bytes (at least 64; a multiple of 64 gets one
 * block more): both buffers need that much room. dst and src 4-byte aligned.
 * With NEON it preloads 192 bytes ahead of the source position. */
KELO_EXPORT void kelo_copy(void *dst, const void *src, int len);
/* Copies len bytes and returns where they were put. len <= 126: memcpy to
 * dst, returns dst. Longer: the data goes to dst' = the first address at or
 * after dst with src's offset in a 64-byte line (dst + 0..63: give dst 63
 * bytes of slack), and up to 64 bytes past src + len are read and past
 * dst' + len written (then set right only up to dst' + len): give both 64
 * more. Use the returned pointer. */
KELO_EXPORT void *mem_cpy_pld(void *dst, const void *src, size_t len);

KELO_END_DECLS

#endif
