// MD5: the RFC 1321 test suite, the context interface, and random inputs in
// odd chunk sizes against a plain reference (and OpenSSL on the host).
#include <math.h>
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "kelo/md5.h"

#if defined(KELO_TEST_OPENSSL)
#include <openssl/evp.h>
#endif

namespace {

std::string hex(const unsigned char *d, size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s += digits[d[i] >> 4];
    s += digits[d[i] & 15];
  }
  return s;
}

std::string kelo_md5(const std::string &msg) {
  MD5_CTX ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, reinterpret_cast<const unsigned char *>(msg.data()), static_cast<unsigned>(msg.size()));
  unsigned char d[16];
  MD5Final(&ctx, d);
  return hex(d, 16);
}

// A second, deliberately plain formulation: the loop with the sine table,
// whole message padded up front.
std::string reference_md5(const std::string &msg) {
  static const unsigned shifts[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                                      5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                                      4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                                      6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};
  uint32_t k[64];
  for (int i = 0; i < 64; ++i) k[i] = static_cast<uint32_t>(floor(fabs(sin(i + 1.0)) * 4294967296.0));
  std::vector<unsigned char> m(msg.begin(), msg.end());
  uint64_t bits = static_cast<uint64_t>(msg.size()) * 8;
  m.push_back(0x80);
  while (m.size() % 64 != 56) m.push_back(0);
  for (int i = 0; i < 8; ++i) m.push_back(static_cast<unsigned char>(bits >> (8 * i)));
  uint32_t h[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  for (size_t off = 0; off < m.size(); off += 64) {
    uint32_t w[16];
    for (int i = 0; i < 16; ++i)
      w[i] = m[off + 4 * i] | (m[off + 4 * i + 1] << 8) | (m[off + 4 * i + 2] << 16) |
             (static_cast<uint32_t>(m[off + 4 * i + 3]) << 24);
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3];
    for (int i = 0; i < 64; ++i) {
      uint32_t f;
      int g;
      if (i < 16) {
        f = (b & c) | (~b & d);
        g = i;
      } else if (i < 32) {
        f = (d & b) | (~d & c);
        g = (5 * i + 1) % 16;
      } else if (i < 48) {
        f = b ^ c ^ d;
        g = (3 * i + 5) % 16;
      } else {
        f = c ^ (b | ~d);
        g = (7 * i) % 16;
      }
      uint32_t t = d;
      d = c;
      c = b;
      uint32_t x = a + f + k[i] + w[g];
      b = b + ((x << shifts[i]) | (x >> (32 - shifts[i])));
      a = t;
    }
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
  }
  unsigned char out[16];
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) out[4 * i + j] = static_cast<unsigned char>(h[i] >> (8 * j));
  return hex(out, 16);
}

TEST(Md5, Rfc1321TestSuite) {
  const std::pair<std::string, const char *> suite[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto &[msg, digest] : suite) {
    EXPECT_EQ(kelo_md5(msg), digest) << msg;
    EXPECT_EQ(reference_md5(msg), digest) << msg;
  }
}

TEST(Md5, ContextLayoutAndState) {
  static_assert(offsetof(MD5_CTX, count) == 0);
  static_assert(offsetof(MD5_CTX, state) == 8);
  static_assert(offsetof(MD5_CTX, buffer) == 24);
  static_assert(sizeof(MD5_CTX) == 88);
  MD5_CTX ctx;
  memset(&ctx, 0xaa, sizeof ctx);
  MD5Init(&ctx);
  EXPECT_EQ(ctx.count[0], 0u);
  EXPECT_EQ(ctx.count[1], 0u);
  EXPECT_EQ(ctx.state[0], 0x67452301u);
  EXPECT_EQ(ctx.state[3], 0x10325476u);
  std::string data(1000, 'q');
  MD5Update(&ctx, reinterpret_cast<const unsigned char *>(data.data()), 1000);
  EXPECT_EQ(ctx.count[0], 8000u);
  EXPECT_EQ(ctx.count[1], 0u);
  EXPECT_EQ(memcmp(ctx.buffer, data.data(), 1000 % 64), 0);
}

TEST(Md5, BitCountCarriesIntoTheHighWord) {
  MD5_CTX ctx;
  MD5Init(&ctx);
  ctx.count[0] = 0xfffffff8u;  // one byte short of the carry
  unsigned char b[16] = {};
  MD5Update(&ctx, b, 16);
  EXPECT_EQ(ctx.count[0], 0x78u);
  EXPECT_EQ(ctx.count[1], 1u);
}

TEST(Md5, FinalLeavesTheContextAsItIs) {
  MD5_CTX ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, reinterpret_cast<const unsigned char *>("abc"), 3);
  unsigned char d1[16], d2[16];
  MD5Final(&ctx, d1);
  EXPECT_EQ(hex(d1, 16), "900150983cd24fb0d6963f7d28e17f72");
  // Not cleared: the padding and length were hashed in, the count is 64
  // bytes further, and a second Final hashes more padding on top.
  EXPECT_EQ(ctx.count[0], 64u * 8);
  MD5Final(&ctx, d2);
  EXPECT_NE(hex(d2, 16), hex(d1, 16));
  MD5Init(&ctx);
  MD5Final(&ctx, d2);
  EXPECT_EQ(hex(d2, 16), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Md5, EncodeDecodeLittleEndian) {
  const uint32_t words[2] = {0x04030201u, 0xddccbbaau};
  unsigned char bytes[10];
  memset(bytes, 0xee, sizeof bytes);
  MD5Encode(bytes, words, 8);
  const unsigned char want[8] = {1, 2, 3, 4, 0xaa, 0xbb, 0xcc, 0xdd};
  EXPECT_EQ(memcmp(bytes, want, 8), 0);
  EXPECT_EQ(bytes[8], 0xee);
  uint32_t back[3] = {0, 0, 0x12345678u};
  MD5Decode(back, bytes, 8);
  EXPECT_EQ(back[0], words[0]);
  EXPECT_EQ(back[1], words[1]);
  EXPECT_EQ(back[2], 0x12345678u);
  // A partial last word is left alone rather than run past len.
  memset(bytes, 0xee, sizeof bytes);
  MD5Encode(bytes, words, 6);
  EXPECT_EQ(bytes[4], 0xee);
  back[1] = 7;
  MD5Decode(back, want, 7);
  EXPECT_EQ(back[1], 7u);
}

TEST(Md5, TransformIsOneBlock) {
  // MD5Transform of the padded empty message gives the empty digest.
  unsigned char block[64] = {0x80};
  uint32_t st[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  MD5Transform(st, block);
  unsigned char d[16];
  MD5Encode(d, st, 16);
  EXPECT_EQ(hex(d, 16), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Md5, RandomInputsInOddChunks) {
  std::mt19937 rng(1321);
  for (int round = 0; round < 300; ++round) {
    size_t len = round < 150 ? static_cast<size_t>(round) : rng() % 5000;
    std::string msg(len, '\0');
    for (auto &c : msg) c = static_cast<char>(rng());
    MD5_CTX ctx;
    MD5Init(&ctx);
    size_t off = 0;
    while (off < len) {
      static const size_t chunks[] = {1, 3, 7, 55, 56, 63, 64, 65, 127, 129, 1000};
      size_t n = std::min(chunks[rng() % 11], len - off);
      MD5Update(&ctx, reinterpret_cast<const unsigned char *>(msg.data() + off), static_cast<unsigned>(n));
      off += n;
    }
    unsigned char d[16];
    MD5Final(&ctx, d);
    std::string got = hex(d, 16);
    ASSERT_EQ(got, reference_md5(msg)) << "len " << len;
    ASSERT_EQ(got, kelo_md5(msg));
#if defined(KELO_TEST_OPENSSL)
    unsigned char o[16];
    unsigned int olen = 0;
    ASSERT_EQ(EVP_Digest(msg.data(), len, o, &olen, EVP_md5(), nullptr), 1);
    ASSERT_EQ(got, hex(o, 16)) << "len " << len;
#endif
  }
}

}  // namespace
