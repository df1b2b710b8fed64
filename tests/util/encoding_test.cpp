// Hex, URL and base64 conversions: the cases older callers rely on. Round
// trips and comparisons with references (OpenSSL, plain decoders) are in the
// fuzz targets.
#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <tuple>

#include "kelo/encoding.h"

namespace {

using std::string;
using namespace std::literals;

TEST(Hex, StringifyAndParse) {
  const unsigned char in[] = {0x00, 0xab, 0x7f, 0xff};
  char out[10] = "x";
  EXPECT_EQ(hex_stringify(in, 4, out, 8), -1);                 // no room for the NUL: nothing written
  EXPECT_EQ(hex_stringify(in, SIZE_MAX / 2 + 1, out, 8), -1);  // 2 * len wraps
  EXPECT_STREQ(out, "x");
  EXPECT_EQ(hex_stringify(in, 4, out, 9), 8);
  EXPECT_STREQ(out, "00ab7fff");
  // Every pair lands in out[0]. Lower case is c - 55 ('a' = 42); 'g' = 48
  // shifted out; ' ' - '0' = -16; bytes are unsigned (0x80 - 55 = 73); odd or
  // too small fails.
  const std::tuple<const char *, size_t, int, int> cases[] = {
      {"0A1B", 2, 0, 0x1b},  {"0a", 1, 0, 0x2a}, {"g0", 1, 0, 0x00},   {"  ", 1, 0, 0xf0},
      {"\2000", 1, 0, 0x90}, {"", 0, 0, 0xee},   {"ABC", 2, -1, 0xee}, {"ABCD", 1, -1, 0xee}};
  for (auto [hex, outsize, ret, out0] : cases) {
    unsigned char b[2] = {0xee, 0xee};
    errno = 0;
    EXPECT_EQ(hex_parse(hex, strlen(hex), b, outsize), ret) << hex;
    EXPECT_EQ(b[0] << 8 | b[1], out0 << 8 | 0xee) << hex;
    EXPECT_EQ(errno, ret < 0 ? EINVAL : 0) << hex;
  }
}

TEST(Url, DecodeAndQueryField) {
  // '+' stays; too long is cut silently; a NUL ends the input; a cut escape
  // fails (every byte of it: the url_decode fuzz target).
  for (auto [in, outsize, want] : {std::tuple<std::string_view, size_t, const char *>{"a+%41%2f", 8, "a+A/"},
                                   {"ab%41cd", 4, "abA"},
                                   {"ab\0cd"sv, 8, "ab"},
                                   {"a%4", 8, nullptr}}) {
    char out[8];
    int n = url_decode_comp(in.data(), in.size(), out, outsize);
    EXPECT_EQ(n, want ? static_cast<int>(strlen(want) + 1) : -1) << in;
    EXPECT_STREQ(n < 0 ? nullptr : out, want) << in;
  }
  // The hit inside "xa" is passed over; the value ends at qslen (-1: whole
  // text), an '=' just behind it gives an empty value; no '=' right after the
  // name is ENOENT; a decoding error passes through.
  const std::tuple<const char *, int, const char *, int, int, const char *> fields[] = {
      {"xa=1&a=%41", -1, "a", 2, 0, "A"},  {"a=123&b=4", 4, "a", 3, 0, "12"},
      {"a=1", 1, "a", 1, 0, ""},           {"a1&b=2", -1, "a", -1, ENOENT, "-"},
      {"a=1&b", -1, "b", -1, ENOENT, "-"}, {"a=%4", -1, "a", -1, EINVAL, "-"}};
  for (auto [qs, qslen, name, ret, err, value] : fields) {
    char out[16] = "-";
    errno = 0;
    EXPECT_EQ(url_qs_field(qs, qslen < 0 ? strlen(qs) : static_cast<size_t>(qslen), name, out, sizeof out),
              ret)
        << qs;
    EXPECT_EQ(errno, err) << qs;
    EXPECT_STREQ(out, value) << qs;
  }
}

TEST(Base64, DecodeSkipsEverythingOutsideTheAlphabet) {
  // '=' does not end the input ("ZgZm" + a single "8", dropped).
  for (auto [in, want] : {std::pair<string, string>{"Zm9v\nYmFy", "foobar"},
                          {"Zg==Zm8=", "f\x06\x66"},
                          {" Zm\0009v\xff\r\n"s, "foo"}}) {
    unsigned char out[8];
    int n = base64_decode(in.data(), in.size(), out, sizeof out);
    EXPECT_EQ(string(reinterpret_cast<char *>(out), n < 0 ? 0 : static_cast<size_t>(n)), want) << in;
  }
}

}  // namespace
