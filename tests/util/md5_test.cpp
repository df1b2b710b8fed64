// MD5 as older callers use the context. The digests themselves are compared
// with OpenSSL, in random chunks, by the md5 fuzz target.
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include "kelo/md5.h"

namespace {

TEST(Md5, CountCarryFinalThatDoesNotClearAndWholeWords) {
  static_assert(offsetof(MD5_CTX, state) == 8 && offsetof(MD5_CTX, buffer) == 24 && sizeof(MD5_CTX) == 88);
  MD5_CTX ctx;
  MD5Init(&ctx);
  ctx.count[0] = 0xfffffff8u;  // the bit count carries into the high word
  MD5Update(&ctx, reinterpret_cast<const unsigned char *>("0123456789abcdef"), 16);
  EXPECT_EQ(ctx.count[0], 0x78u);
  EXPECT_EQ(ctx.count[1], 1u);
  // Final does not clear: padding and length were hashed in, the count is 64
  // bytes further, and a second Final hashes more padding on top.
  unsigned char d1[16], d2[16];
  MD5Init(&ctx);
  MD5Update(&ctx, reinterpret_cast<const unsigned char *>("abc"), 3);
  MD5Final(&ctx, d1);
  EXPECT_EQ(memcmp(d1, "\x90\x01\x50\x98\x3c\xd2\x4f\xb0\xd6\x96\x3f\x7d\x28\xe1\x7f\x72", 16), 0);
  EXPECT_EQ(ctx.count[0], 64u * 8);
  MD5Final(&ctx, d2);
  EXPECT_NE(memcmp(d1, d2, 16), 0);
  // A partial last word is left alone rather than run past len.
  const uint32_t words[2] = {0x04030201u, 0xddccbbaau};
  unsigned char bytes[8] = {0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee};
  MD5Encode(bytes, words, 7);
  EXPECT_EQ(memcmp(bytes, "\1\2\3\4\xee\xee\xee\xee", 8), 0);
  uint32_t back[2] = {0, 7};
  MD5Decode(back, bytes, 7);
  EXPECT_EQ(back[0], words[0]);
  EXPECT_EQ(back[1], 7u);
}

}  // namespace
