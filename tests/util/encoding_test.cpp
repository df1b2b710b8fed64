// Hex, URL and base64 conversions.
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <string_view>
#include <tuple>

#include "kelo/encoding.h"

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

}  // namespace
