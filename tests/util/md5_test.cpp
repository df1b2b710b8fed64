// MD5: the RFC 1321 suite whole and a byte at a time, and the context as C
// callers use it. Random inputs in random chunks are compared with OpenSSL
// by the md5 fuzz target.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <gtest/gtest.h>

#include <string>

#include "kelo/md5.h"

namespace {

std::string hex(const unsigned char *d) {
  char s[33];
  for (int i = 0; i < 16; ++i) snprintf(s + 2 * i, 3, "%02x", d[i]);
  return s;
}

TEST(Md5, Rfc1321SuiteWholeAndByteByByte) {
  const std::pair<std::string, const char *> suite[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto &[msg, digest] : suite)
    for (size_t chunk : {msg.size(), size_t{1}}) {
      MD5_CTX ctx;
      MD5Init(&ctx);
      for (size_t off = 0; off < msg.size(); off += chunk)
        MD5Update(&ctx, reinterpret_cast<const unsigned char *>(msg.data() + off),
                  static_cast<unsigned>(chunk));
      unsigned char d[16];
      MD5Final(&ctx, d);
      EXPECT_EQ(hex(d), digest) << msg << " in chunks of " << chunk;
    }
}

TEST(Md5, ContextLayoutCountCarryAndFinalThatDoesNotClear) {
  static_assert(offsetof(MD5_CTX, count) == 0 && offsetof(MD5_CTX, state) == 8);
  static_assert(offsetof(MD5_CTX, buffer) == 24 && sizeof(MD5_CTX) == 88);
  MD5_CTX ctx;
  MD5Init(&ctx);
  ctx.count[0] = 0xfffffff8u;  // the bit count carries into the high word
  MD5Update(&ctx, reinterpret_cast<const unsigned char *>("0123456789abcdef"), 16);
  EXPECT_EQ(ctx.count[0], 0x78u);
  EXPECT_EQ(ctx.count[1], 1u);
  unsigned char d1[16], d2[16];
  MD5Init(&ctx);
  MD5Update(&ctx, reinterpret_cast<const unsigned char *>("abc"), 3);
  MD5Final(&ctx, d1);
  // Not cleared: padding and length were hashed in, the count is 64 bytes
  // further, and a second Final hashes more padding on top.
  EXPECT_EQ(ctx.count[0], 64u * 8);
  MD5Final(&ctx, d2);
  EXPECT_NE(hex(d2), hex(d1));
}

// A partial last word is left alone rather than run past len.
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

}  // namespace
