/* Random values from the kernel's generator (getrandom); stateless, any thread. */
#ifndef KELO_RAND_H
#define KELO_RAND_H

#include <stddef.h>

#include <kelo/export.h>

KELO_BEGIN_DECLS

/* Four random bytes as a signed 32-bit value (negative values included). */
KELO_EXPORT long rand_long(void);
KELO_EXPORT int rand_int(void);
/* lo + (r % (hi - lo)) with a signed r: results lie between lo - (n - 1) and
 * lo + (n - 1), n = hi - lo, so about half fall below lo. hi == lo gives
 * lo + r. Callers rely on exactly this formula. */
KELO_EXPORT int rand_range(int lo, int hi);
/* Writes out[len] = 0 and out[len-1] .. out[1] from alphabet; out[0] is left
 * as the caller set it. out holds len + 1 bytes. len 0 writes nothing. */
KELO_EXPORT void rand_str(const char *alphabet, int alphabet_len, char *out, size_t len);
/* rand_range(1, 10000000): may be 0 or negative. */
KELO_EXPORT int generate_random_id(void);

KELO_END_DECLS

#endif
