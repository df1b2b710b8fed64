// MD5 (RFC 1321).
#include "kelo/md5.h"

#include <string.h>

namespace {

constexpr unsigned char kPadding[64] = {0x80};

inline uint32_t rotl(uint32_t x, unsigned n) { return (x << n) | (x >> (32 - n)); }

inline uint32_t load_le32(const unsigned char *p) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  uint32_t v;
  memcpy(&v, p, 4);
  return v;
#else
  return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
#endif
}

inline void store_le32(unsigned char *p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}

// The four auxiliary functions. G is written as a sum of its two disjoint
// halves and every step adds the message word and constant first: both let
// the processor start a step before the previous one has finished.
#define MD5_AUX_F(x, y, z) ((((y) ^ (z)) & (x)) ^ (z))
#define MD5_AUX_H(x, y, z) ((x) ^ (y) ^ (z))
#define MD5_AUX_I(x, y, z) ((y) ^ ((x) | ~(z)))
#define MD5_AUX_STEP(f, a, b, c, d, x, s, ac) \
  do {                                        \
    (a) += (x) + (ac);                        \
    (a) += f((b), (c), (d));                  \
    (a) = rotl((a), (s)) + (b);               \
  } while (0)
#define MD5_STEP_G(a, b, c, d, x, s, ac) \
  do {                                   \
    (a) += (x) + (ac);                   \
    (a) += (d) & (b);                    \
    (a) += ~(d) & (c);                   \
    (a) = rotl((a), (s)) + (b);          \
  } while (0)

void transform(uint32_t state[4], const unsigned char *block) {
  uint32_t x[16];
  for (int i = 0; i < 16; ++i) x[i] = load_le32(block + 4 * i);
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];

  MD5_AUX_STEP(MD5_AUX_F, a, b, c, d, x[0], 7, 0xd76aa478);
  MD5_AUX_STEP(MD5_AUX_F, d, a, b, c, x[1], 12, 0xe8c7b756);
  MD5_AUX_STEP(MD5_AUX_F, c, d, a, b, x[2], 17, 0x242070db);
  MD5_AUX_STEP(MD5_AUX_F, b, c, d, a, x[3], 22, 0xc1bdceee);
  MD5_AUX_STEP(MD5_AUX_F, a, b, c, d, x[4], 7, 0xf57c0faf);
  MD5_AUX_STEP(MD5_AUX_F, d, a, b, c, x[5], 12, 0x4787c62a);
  MD5_AUX_STEP(MD5_AUX_F, c, d, a, b, x[6], 17, 0xa8304613);
  MD5_AUX_STEP(MD5_AUX_F, b, c, d, a, x[7], 22, 0xfd469501);
  MD5_AUX_STEP(MD5_AUX_F, a, b, c, d, x[8], 7, 0x698098d8);
  MD5_AUX_STEP(MD5_AUX_F, d, a, b, c, x[9], 12, 0x8b44f7af);
  MD5_AUX_STEP(MD5_AUX_F, c, d, a, b, x[10], 17, 0xffff5bb1);
  MD5_AUX_STEP(MD5_AUX_F, b, c, d, a, x[11], 22, 0x895cd7be);
  MD5_AUX_STEP(MD5_AUX_F, a, b, c, d, x[12], 7, 0x6b901122);
  MD5_AUX_STEP(MD5_AUX_F, d, a, b, c, x[13], 12, 0xfd987193);
  MD5_AUX_STEP(MD5_AUX_F, c, d, a, b, x[14], 17, 0xa679438e);
  MD5_AUX_STEP(MD5_AUX_F, b, c, d, a, x[15], 22, 0x49b40821);

  MD5_STEP_G(a, b, c, d, x[1], 5, 0xf61e2562);
  MD5_STEP_G(d, a, b, c, x[6], 9, 0xc040b340);
  MD5_STEP_G(c, d, a, b, x[11], 14, 0x265e5a51);
  MD5_STEP_G(b, c, d, a, x[0], 20, 0xe9b6c7aa);
  MD5_STEP_G(a, b, c, d, x[5], 5, 0xd62f105d);
  MD5_STEP_G(d, a, b, c, x[10], 9, 0x02441453);
  MD5_STEP_G(c, d, a, b, x[15], 14, 0xd8a1e681);
  MD5_STEP_G(b, c, d, a, x[4], 20, 0xe7d3fbc8);
  MD5_STEP_G(a, b, c, d, x[9], 5, 0x21e1cde6);
  MD5_STEP_G(d, a, b, c, x[14], 9, 0xc33707d6);
  MD5_STEP_G(c, d, a, b, x[3], 14, 0xf4d50d87);
  MD5_STEP_G(b, c, d, a, x[8], 20, 0x455a14ed);
  MD5_STEP_G(a, b, c, d, x[13], 5, 0xa9e3e905);
  MD5_STEP_G(d, a, b, c, x[2], 9, 0xfcefa3f8);
  MD5_STEP_G(c, d, a, b, x[7], 14, 0x676f02d9);
  MD5_STEP_G(b, c, d, a, x[12], 20, 0x8d2a4c8a);

  MD5_AUX_STEP(MD5_AUX_H, a, b, c, d, x[5], 4, 0xfffa3942);
  MD5_AUX_STEP(MD5_AUX_H, d, a, b, c, x[8], 11, 0x8771f681);
  MD5_AUX_STEP(MD5_AUX_H, c, d, a, b, x[11], 16, 0x6d9d6122);
  MD5_AUX_STEP(MD5_AUX_H, b, c, d, a, x[14], 23, 0xfde5380c);
  MD5_AUX_STEP(MD5_AUX_H, a, b, c, d, x[1], 4, 0xa4beea44);
  MD5_AUX_STEP(MD5_AUX_H, d, a, b, c, x[4], 11, 0x4bdecfa9);
  MD5_AUX_STEP(MD5_AUX_H, c, d, a, b, x[7], 16, 0xf6bb4b60);
  MD5_AUX_STEP(MD5_AUX_H, b, c, d, a, x[10], 23, 0xbebfbc70);
  MD5_AUX_STEP(MD5_AUX_H, a, b, c, d, x[13], 4, 0x289b7ec6);
  MD5_AUX_STEP(MD5_AUX_H, d, a, b, c, x[0], 11, 0xeaa127fa);
  MD5_AUX_STEP(MD5_AUX_H, c, d, a, b, x[3], 16, 0xd4ef3085);
  MD5_AUX_STEP(MD5_AUX_H, b, c, d, a, x[6], 23, 0x04881d05);
  MD5_AUX_STEP(MD5_AUX_H, a, b, c, d, x[9], 4, 0xd9d4d039);
  MD5_AUX_STEP(MD5_AUX_H, d, a, b, c, x[12], 11, 0xe6db99e5);
  MD5_AUX_STEP(MD5_AUX_H, c, d, a, b, x[15], 16, 0x1fa27cf8);
  MD5_AUX_STEP(MD5_AUX_H, b, c, d, a, x[2], 23, 0xc4ac5665);

  MD5_AUX_STEP(MD5_AUX_I, a, b, c, d, x[0], 6, 0xf4292244);
  MD5_AUX_STEP(MD5_AUX_I, d, a, b, c, x[7], 10, 0x432aff97);
  MD5_AUX_STEP(MD5_AUX_I, c, d, a, b, x[14], 15, 0xab9423a7);
  MD5_AUX_STEP(MD5_AUX_I, b, c, d, a, x[5], 21, 0xfc93a039);
  MD5_AUX_STEP(MD5_AUX_I, a, b, c, d, x[12], 6, 0x655b59c3);
  MD5_AUX_STEP(MD5_AUX_I, d, a, b, c, x[3], 10, 0x8f0ccc92);
  MD5_AUX_STEP(MD5_AUX_I, c, d, a, b, x[10], 15, 0xffeff47d);
  MD5_AUX_STEP(MD5_AUX_I, b, c, d, a, x[1], 21, 0x85845dd1);
  MD5_AUX_STEP(MD5_AUX_I, a, b, c, d, x[8], 6, 0x6fa87e4f);
  MD5_AUX_STEP(MD5_AUX_I, d, a, b, c, x[15], 10, 0xfe2ce6e0);
  MD5_AUX_STEP(MD5_AUX_I, c, d, a, b, x[6], 15, 0xa3014314);
  MD5_AUX_STEP(MD5_AUX_I, b, c, d, a, x[13], 21, 0x4e0811a1);
  MD5_AUX_STEP(MD5_AUX_I, a, b, c, d, x[4], 6, 0xf7537e82);
  MD5_AUX_STEP(MD5_AUX_I, d, a, b, c, x[11], 10, 0xbd3af235);
  MD5_AUX_STEP(MD5_AUX_I, c, d, a, b, x[2], 15, 0x2ad7d2bb);
  MD5_AUX_STEP(MD5_AUX_I, b, c, d, a, x[9], 21, 0xeb86d391);

  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

void update(MD5_CTX *ctx, const unsigned char *input, unsigned int len) {
  unsigned int index = (ctx->count[0] >> 3) & 0x3f;
  uint32_t bits = static_cast<uint32_t>(len) << 3;
  ctx->count[0] += bits;
  if (ctx->count[0] < bits) ctx->count[1]++;
  ctx->count[1] += static_cast<uint32_t>(len) >> 29;

  unsigned int part = 64 - index;
  unsigned int i = 0;
  if (len >= part) {
    memcpy(&ctx->buffer[index], input, part);
    transform(ctx->state, ctx->buffer);
    for (i = part; len - i >= 64; i += 64) transform(ctx->state, input + i);
    index = 0;
  }
  if (len > i) memcpy(&ctx->buffer[index], input + i, len - i);
}

}  // namespace

extern "C" {

KELO_EXPORT void MD5Init(MD5_CTX *ctx) {
  ctx->count[0] = ctx->count[1] = 0;
  ctx->state[0] = 0x67452301;
  ctx->state[1] = 0xefcdab89;
  ctx->state[2] = 0x98badcfe;
  ctx->state[3] = 0x10325476;
}

KELO_EXPORT void MD5Update(MD5_CTX *ctx, const unsigned char *input, unsigned int len) {
  update(ctx, input, len);
}

KELO_EXPORT void MD5Final(MD5_CTX *ctx, unsigned char digest[16]) {
  unsigned char bits[8];
  store_le32(bits, ctx->count[0]);
  store_le32(bits + 4, ctx->count[1]);
  unsigned int index = (ctx->count[0] >> 3) & 0x3f;
  unsigned int pad = index < 56 ? 56 - index : 120 - index;
  update(ctx, kPadding, pad);
  update(ctx, bits, 8);
  for (int i = 0; i < 4; ++i) store_le32(digest + 4 * i, ctx->state[i]);
  // The context is left as it is; callers call MD5Init before reuse.
}

KELO_EXPORT void MD5Transform(uint32_t state[4], const unsigned char block[64]) { transform(state, block); }

KELO_EXPORT void MD5Encode(unsigned char *out, const uint32_t *in, unsigned int len) {
  // Whole words only: a trailing partial word would be written past len.
  for (unsigned int i = 0, j = 0; len - j >= 4 && j < len; ++i, j += 4) store_le32(out + j, in[i]);
}

KELO_EXPORT void MD5Decode(uint32_t *out, const unsigned char *in, unsigned int len) {
  // Whole words only: a trailing partial word would be read past len.
  for (unsigned int i = 0, j = 0; len - j >= 4 && j < len; ++i, j += 4)
    out[i] = uint32_t{in[j]} | (uint32_t{in[j + 1]} << 8) | (uint32_t{in[j + 2]} << 16) |
             (uint32_t{in[j + 3]} << 24);
}

}  // extern "C"
