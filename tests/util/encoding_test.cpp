// Hex, URL and base64 conversions: one table per function with the cases
// older callers rely on. Round trips and comparisons with references (OpenSSL,
// a plain decoder) run in the fuzz targets.
#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "kelo/encoding.h"

namespace {

using std::string;
using namespace std::literals;

TEST(Hex, Stringify) {
  const unsigned char in[] = {0x00, 0xab, 0x7f, 0xff};
  char out[10] = "xxxxxxxxx";
  str2hex(out, in, 0);  // nothing, not even a NUL
  EXPECT_EQ(out[0], 'x');
  // len, outsize, result, text ("x..." untouched); 2 * len wraps in the last.
  const std::tuple<size_t, size_t, int, const char *> cases[] = {{4, 9, 8, "00ab7fff"},
                                                                 {2, 4, -1, "xxxxxxxxx"},
                                                                 {0, 1, 0, "xxxxxxxxx"},
                                                                 {0, 0, -1, "xxxxxxxxx"},
                                                                 {SIZE_MAX / 2 + 1, 8, -1, "xxxxxxxxx"}};
  for (auto [len, outsize, ret, text] : cases) {
    memset(out, 'x', 9);
    errno = 0;
    EXPECT_EQ(hex_stringify(in, len, out, outsize), ret) << len << "/" << outsize;
    EXPECT_EQ(errno, ret < 0 ? EINVAL : 0);
    EXPECT_STREQ(out, text);
  }
}

TEST(Hex, Hex2strPairs) {
  // The rest is cleared; a pair starting with a non-digit gives 0; a non-digit
  // second gives the first digit alone; an odd last pair takes the NUL behind.
  const std::tuple<const char *, std::vector<unsigned char>> cases[] = {{"ABcd", {0xab, 0xcd}},
                                                                        {"0a1B", {0x0a, 0x1b, 0, 0}},
                                                                        {"zz41", {0x00, 0x41}},
                                                                        {"4z", {0x04}},
                                                                        {"abc", {0xab, 0x0c}}};
  for (auto [hex, want] : cases) {
    std::vector<unsigned char> out(want.size(), 0xee);
    hex2str(out.data(), static_cast<int>(out.size()), hex, static_cast<int>(strlen(hex)));
    EXPECT_EQ(out, want) << hex;
  }
}

TEST(Hex, ParseStoresEveryPairIntoTheFirstByte) {
  // Lower case is c - 55 ('a' = 42); 'g' = 48 shifted out; ' ' - '0' = -16;
  // high bytes are unsigned (0x80 - 55 = 73); odd or too small fails.
  const std::tuple<const char *, size_t, int, int> cases[] = {
      {"0A1B", 2, 0, 0x1b},  {"0a", 1, 0, 0x2a}, {"g0", 1, 0, 0x00},   {"  ", 1, 0, 0xf0},
      {"\2000", 1, 0, 0x90}, {"", 0, 0, 0xee},   {"ABC", 2, -1, 0xee}, {"ABCD", 1, -1, 0xee}};
  for (auto [hex, outsize, ret, out0] : cases) {
    unsigned char out[2] = {0xee, 0xee};
    errno = 0;
    EXPECT_EQ(hex_parse(hex, strlen(hex), out, outsize), ret) << hex;
    EXPECT_EQ(out[0], out0) << hex;
    EXPECT_EQ(out[1], 0xee) << hex;
    EXPECT_EQ(errno, ret < 0 ? EINVAL : 0) << hex;
  }
}

TEST(Url, DecodeComponent) {
  // '+' stays; too long is cut silently; inlen or a NUL ends the input; bad
  // or cut escapes fail. Nothing is written past the NUL.
  const std::tuple<std::string_view, size_t, int, const char *> cases[] = {
      {"a%41b", 8, 4, "aAb"},  {"a+b", 8, 4, "a+b"},     {"%2f%2F%7e", 8, 4, "//~"},
      {"abcdef", 4, 4, "abc"}, {"ab%41cd", 4, 4, "abA"}, {"abc", 1, 0, ""},
      {"abc", 0, 0, ""},       {"ab\0cd"sv, 8, 3, "ab"}, {"abcdef"sv.substr(0, 2), 8, 3, "ab"},
      {"a%4", 8, -1, ""},      {"a%g1", 8, -1, ""},      {"%4\0001"sv, 8, -1, ""}};
  for (auto [in, outsize, ret, want] : cases) {
    char out[16];
    memset(out, 'x', sizeof out);
    errno = 0;
    EXPECT_EQ(url_decode_comp(in.data(), in.size(), out, outsize), ret) << in;
    EXPECT_EQ(errno, ret < 0 ? EINVAL : 0) << in;
    if (ret >= 0)
      EXPECT_EQ(string(out, outsize + 1),
                ret ? string(want) + '\0' + string(outsize - strlen(want), 'x') : string(outsize + 1, 'x'))
          << in;
  }
}

TEST(Url, QueryField) {
  // The hit inside "xa" is passed over; the first field wins; the value ends
  // at qslen (-1: whole text), an '=' just behind it gives an empty value; no
  // '=' right after the name is ENOENT; a decoding error passes through.
  const std::tuple<const char *, int, const char *, int, int, const char *> cases[] = {
      {"xa=1&a=2", -1, "a", 2, 0, "2"},       {"a=1&a=2", -1, "a", 2, 0, "1"},
      {"ab=1&a=%41%42", -1, "a", 3, 0, "AB"}, {"a=&b=2", -1, "a", 1, 0, ""},
      {"a=123&b=4", 4, "a", 3, 0, "12"},      {"a=1", 1, "a", 1, 0, ""},
      {"a1&b=2", -1, "a", -1, ENOENT, "-"},   {"a=1&b", -1, "b", -1, ENOENT, "-"},
      {"a=%4", -1, "a", -1, EINVAL, "-"}};
  for (auto [qs, qslen, name, ret, err, value] : cases) {
    char out[16] = "-";
    errno = 0;
    size_t len = qslen < 0 ? strlen(qs) : static_cast<size_t>(qslen);
    EXPECT_EQ(url_qs_field(qs, len, name, out, sizeof out), ret) << qs << " / " << name;
    EXPECT_EQ(errno, err) << qs;
    EXPECT_STREQ(out, value) << qs;
  }
}

TEST(Base64, DecodeSkipsEverythingOutsideTheAlphabet) {
  // A single left-over character is dropped; '=' does not end the input
  // ("ZgZm" + "8" dropped).
  for (auto [in, want] : {std::pair<string, string>{"Zm9v\nYmFy", "foobar"},
                          {"Zg=", "f"},
                          {"Z", ""},
                          {"Zg==Zm8=", "f\x06\x66"},
                          {"Zm\0009v"s, "foo"},
                          {" Z m 9 v\r\n\t", "foo"},
                          {"\xff\x80Zm9v*", "foo"}}) {
    unsigned char out[8];
    int n = base64_decode(in.data(), in.size(), out, sizeof out);
    EXPECT_EQ(string(reinterpret_cast<char *>(out), n < 0 ? 0 : static_cast<size_t>(n)), want) << in;
  }
}

}  // namespace
