/* MD5 message digest (RFC 1321) with the library's historical interface. */
#ifndef KELO_MD5_H
#define KELO_MD5_H

#include <stdint.h>

#include <kelo/export.h>

KELO_BEGIN_DECLS

/* Field order is fixed (callers allocate it): bit count first (low word
 * first), then the running state A, B, C, D, then the pending input. */
typedef struct {
  uint32_t count[2];
  uint32_t state[4];
  unsigned char buffer[64];
} MD5_CTX;

KELO_EXPORT void MD5Init(MD5_CTX *ctx);
KELO_EXPORT void MD5Update(MD5_CTX *ctx, const unsigned char *input, unsigned int len);
/* Context first, digest second. The context is NOT cleared: call MD5Init
 * before using it again. */
KELO_EXPORT void MD5Final(MD5_CTX *ctx, unsigned char digest[16]);
/* One 64-byte block into state. */
KELO_EXPORT void MD5Transform(uint32_t state[4], const unsigned char block[64]);
/* 32-bit words to little-endian bytes and back; len is the byte count, a
 * multiple of 4 (a remainder of 1 to 3 bytes is left alone). */
KELO_EXPORT void MD5Encode(unsigned char *out, const uint32_t *in, unsigned int len);
KELO_EXPORT void MD5Decode(uint32_t *out, const unsigned char *in, unsigned int len);

KELO_END_DECLS

#endif
