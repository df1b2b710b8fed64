// MD5: the RFC 1321 test suite, the context interface, and random inputs in
// odd chunk sizes against a plain reference (and OpenSSL on the host).
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <gtest/gtest.h>

#include <bit>
#include <random>
#include <string>
#include <vector>

#include "kelo/md5.h"

#if defined(KELO_TEST_OPENSSL)
#include <openssl/evp.h>
#endif

namespace {

std::string hex(const unsigned char *d) {
  char s[33];
  for (int i = 0; i < 16; ++i) snprintf(s + 2 * i, 3, "%02x", d[i]);
  return s;
}

// Feeds msg in one piece, or in odd chunk sizes drawn from rng.
std::string kelo_md5(const std::string &msg, std::mt19937 *rng = nullptr) {
  static const size_t kChunks[] = {1, 3, 7, 55, 56, 63, 64, 65, 127, 129, 1000};
  MD5_CTX ctx;
  MD5Init(&ctx);
  for (size_t off = 0, n; off < msg.size(); off += n) {
    n = rng ? std::min(kChunks[(*rng)() % 11], msg.size() - off) : msg.size();
    MD5Update(&ctx, reinterpret_cast<const unsigned char *>(msg.data() + off), static_cast<unsigned>(n));
  }
  unsigned char d[16];
  MD5Final(&ctx, d);
  return hex(d);
}

// A second, deliberately plain formulation: the loop with the sine table,
// whole message padded up front (little-endian hosts only, as are ours).
std::string reference_md5(const std::string &msg) {
  static const int kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
  std::vector<unsigned char> m(msg.begin(), msg.end());
  uint64_t bits = msg.size() * 8ull;
  m.push_back(0x80);
  while (m.size() % 64 != 56) m.push_back(0);
  for (int i = 0; i < 8; ++i) m.push_back(static_cast<unsigned char>(bits >> (8 * i)));
  uint32_t h[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, w[16];
  for (size_t off = 0; off < m.size(); off += 64) {
    memcpy(w, &m[off], 64);
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3];
    for (int i = 0, r = 0; i < 64; r = ++i / 16) {
      uint32_t f = r == 0   ? (b & c) | (~b & d)
                   : r == 1 ? (d & b) | (~d & c)
                   : r == 2 ? b ^ c ^ d
                            : c ^ (b | ~d);
      int g = (r == 0 ? i : r == 1 ? 5 * i + 1 : r == 2 ? 3 * i + 5 : 7 * i) % 16;
      uint32_t x = a + f + static_cast<uint32_t>(floor(fabs(sin(i + 1.0)) * 4294967296.0)) + w[g];
      a = d;
      d = c;
      c = b;
      b += std::rotl(x, kShift[r][i % 4]);
    }
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
  }
  return hex(reinterpret_cast<const unsigned char *>(h));
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

TEST(Md5, ContextLayoutCountAndFinalThatDoesNotClear) {
  static_assert(offsetof(MD5_CTX, count) == 0 && offsetof(MD5_CTX, state) == 8);
  static_assert(offsetof(MD5_CTX, buffer) == 24 && sizeof(MD5_CTX) == 88);
  MD5_CTX ctx;
  memset(&ctx, 0xaa, sizeof ctx);
  MD5Init(&ctx);
  EXPECT_EQ(ctx.count[0] | ctx.count[1], 0u);
  EXPECT_EQ(ctx.state[0], 0x67452301u);
  EXPECT_EQ(ctx.state[3], 0x10325476u);
  std::string data(1000, 'q');
  MD5Update(&ctx, reinterpret_cast<const unsigned char *>(data.data()), 1000);
  EXPECT_EQ(ctx.count[0], 8000u);
  EXPECT_EQ(memcmp(ctx.buffer, data.data(), 1000 % 64), 0);
  ctx.count[0] = 0xfffffff8u;  // the bit count carries into the high word
  MD5Update(&ctx, reinterpret_cast<const unsigned char *>(data.data()), 16);
  EXPECT_EQ(ctx.count[0], 0x78u);
  EXPECT_EQ(ctx.count[1], 1u);

  unsigned char d1[16], d2[16];
  MD5Init(&ctx);
  MD5Update(&ctx, reinterpret_cast<const unsigned char *>("abc"), 3);
  MD5Final(&ctx, d1);
  EXPECT_EQ(hex(d1), "900150983cd24fb0d6963f7d28e17f72");
  // Not cleared: padding and length were hashed in, the count is 64 bytes
  // further, and a second Final hashes more padding on top.
  EXPECT_EQ(ctx.count[0], 64u * 8);
  MD5Final(&ctx, d2);
  EXPECT_NE(hex(d2), hex(d1));
}

// Whole words are covered by the digests; a partial last word is left alone
// rather than run past len.
TEST(Md5, EncodeDecodeStopAtWholeWords) {
  const uint32_t words[2] = {0x04030201u, 0xddccbbaau};
  unsigned char bytes[8];
  memset(bytes, 0xee, sizeof bytes);
  MD5Encode(bytes, words, 7);
  EXPECT_EQ(memcmp(bytes, "\1\2\3\4\xee\xee\xee\xee", 8), 0);
  uint32_t back[2] = {0, 7};
  MD5Decode(back, bytes, 7);
  EXPECT_EQ(back[0], words[0]);
  EXPECT_EQ(back[1], 7u);
}

TEST(Md5, RandomInputsInOddChunks) {
  std::mt19937 rng(1321);
  for (int round = 0; round < 300; ++round) {
    std::string msg(round < 150 ? static_cast<size_t>(round) : rng() % 5000, '\0');
    for (auto &c : msg) c = static_cast<char>(rng());
    std::string got = kelo_md5(msg, &rng);
    ASSERT_EQ(got, reference_md5(msg)) << "len " << msg.size();
#if defined(KELO_TEST_OPENSSL)
    unsigned char o[16];
    ASSERT_EQ(EVP_Digest(msg.data(), msg.size(), o, nullptr, EVP_md5(), nullptr), 1);
    ASSERT_EQ(got, hex(o)) << "len " << msg.size();
#endif
  }
}

}  // namespace
