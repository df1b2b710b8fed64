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

// The additive constants, floor(abs(sin(i + 1)) * 2^32), in step order.
constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

// The four auxiliary functions. F is written with one operation less than
// the RFC's form, G as the sum of its two disjoint halves (the half without
// x can be computed before x is known); every step adds the message word
// and the constant first: all three let a step start before the previous
// one has finished.
#define MD5_F(x, y, z) ((((y) ^ (z)) & (x)) ^ (z))
#define MD5_G(x, y, z) (((x) & (z)) + ((y) & ~(z)))
#define MD5_H(x, y, z) ((x) ^ (y) ^ (z))
#define MD5_I(x, y, z) ((y) ^ ((x) | ~(z)))
#define MD5_STEP(f, a, b, c, d, k, s, i)         \
  do {                                           \
    (a) += load_le32(block + 4 * (k)) + sine[i]; \
    (a) += MD5_##f((b), (c), (d));               \
    (a) = rotl((a), (s)) + (b);                  \
  } while (0)

// The message words are read from the block where they are used, once in
// each round, rather than copied out first: the rounds need no stack copy of
// the block.
void transform(uint32_t state[4], const unsigned char *block) {
  const uint32_t *sine = kSine;
#if defined(__arm__)
  // ARM builds a 32-bit constant in two instructions (movw, movt) and loads
  // it from the table in one; hiding the table's address keeps the compiler
  // from folding the loads back into constants.
  asm("" : "+r"(sine));
#endif
  // Between rounds the block's address is hidden from the compiler as well:
  // it would keep the words of one round for the next, and with only 14
  // registers spill them to the stack, a store and a load instead of a load.
#define MD5_NEXT_ROUND() asm("" : "+r"(block))
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];

  MD5_STEP(F, a, b, c, d, 0, 7, 0);
  MD5_STEP(F, d, a, b, c, 1, 12, 1);
  MD5_STEP(F, c, d, a, b, 2, 17, 2);
  MD5_STEP(F, b, c, d, a, 3, 22, 3);
  MD5_STEP(F, a, b, c, d, 4, 7, 4);
  MD5_STEP(F, d, a, b, c, 5, 12, 5);
  MD5_STEP(F, c, d, a, b, 6, 17, 6);
  MD5_STEP(F, b, c, d, a, 7, 22, 7);
  MD5_STEP(F, a, b, c, d, 8, 7, 8);
  MD5_STEP(F, d, a, b, c, 9, 12, 9);
  MD5_STEP(F, c, d, a, b, 10, 17, 10);
  MD5_STEP(F, b, c, d, a, 11, 22, 11);
  MD5_STEP(F, a, b, c, d, 12, 7, 12);
  MD5_STEP(F, d, a, b, c, 13, 12, 13);
  MD5_STEP(F, c, d, a, b, 14, 17, 14);
  MD5_STEP(F, b, c, d, a, 15, 22, 15);

  MD5_NEXT_ROUND();
  MD5_STEP(G, a, b, c, d, 1, 5, 16);
  MD5_STEP(G, d, a, b, c, 6, 9, 17);
  MD5_STEP(G, c, d, a, b, 11, 14, 18);
  MD5_STEP(G, b, c, d, a, 0, 20, 19);
  MD5_STEP(G, a, b, c, d, 5, 5, 20);
  MD5_STEP(G, d, a, b, c, 10, 9, 21);
  MD5_STEP(G, c, d, a, b, 15, 14, 22);
  MD5_STEP(G, b, c, d, a, 4, 20, 23);
  MD5_STEP(G, a, b, c, d, 9, 5, 24);
  MD5_STEP(G, d, a, b, c, 14, 9, 25);
  MD5_STEP(G, c, d, a, b, 3, 14, 26);
  MD5_STEP(G, b, c, d, a, 8, 20, 27);
  MD5_STEP(G, a, b, c, d, 13, 5, 28);
  MD5_STEP(G, d, a, b, c, 2, 9, 29);
  MD5_STEP(G, c, d, a, b, 7, 14, 30);
  MD5_STEP(G, b, c, d, a, 12, 20, 31);

  MD5_NEXT_ROUND();
  MD5_STEP(H, a, b, c, d, 5, 4, 32);
  MD5_STEP(H, d, a, b, c, 8, 11, 33);
  MD5_STEP(H, c, d, a, b, 11, 16, 34);
  MD5_STEP(H, b, c, d, a, 14, 23, 35);
  MD5_STEP(H, a, b, c, d, 1, 4, 36);
  MD5_STEP(H, d, a, b, c, 4, 11, 37);
  MD5_STEP(H, c, d, a, b, 7, 16, 38);
  MD5_STEP(H, b, c, d, a, 10, 23, 39);
  MD5_STEP(H, a, b, c, d, 13, 4, 40);
  MD5_STEP(H, d, a, b, c, 0, 11, 41);
  MD5_STEP(H, c, d, a, b, 3, 16, 42);
  MD5_STEP(H, b, c, d, a, 6, 23, 43);
  MD5_STEP(H, a, b, c, d, 9, 4, 44);
  MD5_STEP(H, d, a, b, c, 12, 11, 45);
  MD5_STEP(H, c, d, a, b, 15, 16, 46);
  MD5_STEP(H, b, c, d, a, 2, 23, 47);

  MD5_NEXT_ROUND();
  MD5_STEP(I, a, b, c, d, 0, 6, 48);
  MD5_STEP(I, d, a, b, c, 7, 10, 49);
  MD5_STEP(I, c, d, a, b, 14, 15, 50);
  MD5_STEP(I, b, c, d, a, 5, 21, 51);
  MD5_STEP(I, a, b, c, d, 12, 6, 52);
  MD5_STEP(I, d, a, b, c, 3, 10, 53);
  MD5_STEP(I, c, d, a, b, 10, 15, 54);
  MD5_STEP(I, b, c, d, a, 1, 21, 55);
  MD5_STEP(I, a, b, c, d, 8, 6, 56);
  MD5_STEP(I, d, a, b, c, 15, 10, 57);
  MD5_STEP(I, c, d, a, b, 6, 15, 58);
  MD5_STEP(I, b, c, d, a, 13, 21, 59);
  MD5_STEP(I, a, b, c, d, 4, 6, 60);
  MD5_STEP(I, d, a, b, c, 11, 10, 61);
  MD5_STEP(I, c, d, a, b, 2, 15, 62);
  MD5_STEP(I, b, c, d, a, 9, 21, 63);

  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

#undef MD5_F
#undef MD5_G
#undef MD5_H
#undef MD5_I
#undef MD5_STEP
#undef MD5_NEXT_ROUND

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
