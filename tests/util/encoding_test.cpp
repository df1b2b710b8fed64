// Hex, URL and base64 conversions, and MD5.
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <string_view>
#include <tuple>

#include "kelo/encoding.h"
#include "kelo/md5.h"

namespace {

using namespace std::literals;

// The quirks older callers rely on; the fuzz targets compare every function
// with a reference on random input.
TEST(Encoding, HexUrlAndBase64Quirks) {
  const unsigned char in[] = {0x00, 0xab};
  char out[10] = "x";
  EXPECT_EQ(hex_stringify(in, SIZE_MAX / 2 + 1, out, 8), -1);  // 2 * len wraps: refused, nothing written
  EXPECT_STREQ(out, "x");
  // hex_parse stores every pair into out[0]; 'a' counts as 42.
  unsigned char b[2] = {0xee, 0xee};
  EXPECT_EQ(hex_parse("0A1a", 4, b, 2), 0);
  EXPECT_EQ(b[0] << 8 | b[1], (0x10 + 42) << 8 | 0xee);
  // '+' stays; too long is cut silently; a NUL ends the input; a cut escape fails.
  for (auto [text, outsize, want] :
       {std::tuple<std::string_view, size_t, const char *>{"a+%41%2f", 8, "a+A/"},
        {"ab%41cd", 4, "abA"},
        {"ab\0cd"sv, 8, "ab"},
        {"a%4", 8, nullptr}}) {
    int n = url_decode_comp(text.data(), text.size(), out, outsize);
    EXPECT_EQ(n, want ? static_cast<int>(strlen(want) + 1) : -1) << text;
    EXPECT_STREQ(n < 0 ? nullptr : out, want) << text;
  }
  // The hit inside "xa" is passed over; an '=' just behind qslen gives an empty value.
  EXPECT_EQ(url_qs_field("xa=1&a=%41", 10, "a", out, sizeof out), 2);
  EXPECT_STREQ(out, "A");
  EXPECT_EQ(url_qs_field("a=1", 1, "a", out, sizeof out), 1);
  EXPECT_STREQ(out, "");
  // Base64 decoding skips everything outside the alphabet; '=' does not end
  // the input ("ZgZm" + a single "8", dropped).
  EXPECT_EQ(base64_decode("Zg==\nZm8=", 9, b, 2), -1);
  unsigned char three[3];
  EXPECT_EQ(base64_decode("Zg==\nZm8=", 9, three, 3), 3);
  EXPECT_EQ(memcmp(three, "f\x06\x66", 3), 0);
}

// MD5 as older callers use the context (the digests are compared with
// OpenSSL, in random chunks, by the md5 fuzz target).
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
