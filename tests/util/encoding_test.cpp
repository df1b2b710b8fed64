// Hex, URL and base64 conversions.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "kelo/encoding.h"
#include "support/sandbox.h"

namespace {

using std::string;
using namespace std::literals;

TEST(Hex, Str2hexAndStringify) {
  const unsigned char in[] = {0x00, 0xab, 0x7f, 0xff};
  char out[10];
  memset(out, 'x', sizeof out);
  str2hex(out, in, 0);  // nothing, not even a NUL
  EXPECT_EQ(out[0], 'x');
  str2hex(out, in, 4);
  EXPECT_EQ(string(out, 10), string("00ab7fff\0x", 10));
  // len, outsize, result, text ("x..." untouched); len 0 writes nothing; 2 * len wraps in the last.
  const std::tuple<size_t, size_t, int, const char *> cases[] = {
      {4, 9, 8, "00ab7fff"},  {2, 5, 4, "00ab"},       {2, 4, -1, "xxxxxxxxx"},
      {0, 1, 0, "xxxxxxxxx"}, {0, 0, -1, "xxxxxxxxx"}, {SIZE_MAX / 2 + 1, 8, -1, "xxxxxxxxx"}};
  for (auto [len, outsize, ret, text] : cases) {
    memset(out, 'x', 9);
    out[9] = '\0';
    errno = 0;
    EXPECT_EQ(hex_stringify(in, len, out, outsize), ret) << len << "/" << outsize;
    EXPECT_EQ(errno, ret < 0 ? EINVAL : 0);
    EXPECT_STREQ(out, text);
  }
}

TEST(Hex, Hex2strPairsAndShortBufferWarning) {
  // The rest is cleared; a pair starting with a non-digit gives 0; a non-digit
  // second gives the first digit alone; an odd last pair takes the NUL behind.
  const std::tuple<const char *, int, std::vector<unsigned char>> cases[] = {{"ABcd", 4, {0xab, 0xcd}},
                                                                             {"0a1B", 4, {0x0a, 0x1b, 0, 0}},
                                                                             {"zz41", 4, {0x00, 0x41}},
                                                                             {"4z", 2, {0x04}},
                                                                             {"abc", 3, {0xab, 0x0c}}};
  for (auto [hex, hexlen, want] : cases) {
    std::vector<unsigned char> out(want.size(), 0xee);
    hex2str(out.data(), static_cast<int>(out.size()), hex, hexlen);
    EXPECT_EQ(out, want) << hex;
  }
  kelo::test::Sandbox sb;
  auto r = kelo::test::run_child([] {
    setenv("KELO_LOG_FILE", "-", 1);
    unsigned char out[2] = {0x11, 0x22};
    hex2str(out, 1, "ABCD", 4);
    printf("%02x %02x\n", out[0], out[1]);
  });
  EXPECT_EQ(r.out, "ab 22\n");
  EXPECT_NE(r.err.find("buflen(1) might not be enough for the hexlen(4) convertion.\n"), string::npos)
      << r.err;
}

TEST(Hex, ParseStoresEveryPairIntoTheFirstByte) {
  // Lower case is c - 55 ('a' = 42); 'g' = 48 shifted out; ' ' - '0' = -16;
  // high bytes are unsigned as on the device (0x80 - 55 = 73); odd or too
  // small fails.
  const std::tuple<const char *, size_t, int, int> cases[] = {
      {"0A1B", 2, 0, 0x1b}, {"0a", 1, 0, 0x2a},   {"FF", 1, 0, 0xff},
      {"g0", 1, 0, 0x00},   {"  ", 1, 0, 0xf0},   {"\2000", 1, 0, 0x90},
      {"", 0, 0, 0xee},     {"ABC", 2, -1, 0xee}, {"ABCD", 1, -1, 0xee}};
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
  // '+' stays; too long is cut silently; a NUL ends the input; bad or cut
  // escapes fail.
  const std::tuple<std::string_view, size_t, int, const char *> cases[] = {
      {"a%41b", 8, 4, "aAb"},   {"a+b", 8, 4, "a+b"},     {"%2f%2F%7e", 8, 4, "//~"}, {"abcdef", 4, 4, "abc"},
      {"ab%41cd", 4, 4, "abA"}, {"", 2, 1, ""},           {"abc", 2, 2, "a"},         {"abc", 1, 0, ""},
      {"abc", 0, 0, ""},        {"ab\0cd"sv, 8, 3, "ab"}, {"a%4", 8, -1, ""},         {"a%", 8, -1, ""},
      {"a%g1", 8, -1, ""},      {"a%1g", 8, -1, ""},      {"%4\0001"sv, 8, -1, ""}};
  for (auto [in, outsize, ret, want] : cases) {
    char out[16];
    memset(out, 'x', sizeof out);
    errno = 0;
    EXPECT_EQ(url_decode_comp(in.data(), in.size(), out, outsize), ret) << in;
    EXPECT_EQ(errno, ret < 0 ? EINVAL : 0) << in;
    string expect =
        ret <= 0 ? string(outsize + 1, 'x') : string(want) + '\0' + string(outsize - strlen(want), 'x');
    EXPECT_EQ(ret < 0 ? expect : string(out, outsize + 1), expect) << in;
  }
  char out[8];
  EXPECT_EQ(url_decode_comp("abcdef", 2, out, sizeof out), 3);  // stops at inlen
  EXPECT_STREQ(out, "ab");
  // Bytes of an unfinished escape already written stay without a NUL.
  memset(out, 'x', sizeof out);
  EXPECT_EQ(url_decode_comp("ab%4", 4, out, sizeof out), -1);
  EXPECT_EQ(string(out, 3), "abx");
}

TEST(Url, QueryField) {
  // The hit inside "xa" is passed over; the first field wins; the value ends
  // at qslen (-1: whole text), an '=' just behind it gives an empty value; no
  // '=' right after the name (the NUL behind is none) is ENOENT; a decoding
  // error passes through.
  const std::tuple<const char *, int, const char *, int, int, const char *> cases[] = {
      {"xa=1&a=2", -1, "a", 2, 0, "2"},       {"a=1&a=2", -1, "a", 2, 0, "1"},
      {"ab=1&a=%41%42", -1, "a", 3, 0, "AB"}, {"a=1&b=2", -1, "b", 2, 0, "2"},
      {"a=1&ba=2", -1, "a", 2, 0, "1"},       {"a=&b=2", -1, "a", 1, 0, ""},
      {"a=123&b=4", 4, "a", 3, 0, "12"},      {"a=1", 1, "a", 1, 0, ""},
      {"a=1&b=2", -1, "c", -1, ENOENT, "-"},  {"a1&b=2", -1, "a", -1, ENOENT, "-"},
      {"a=1&b", -1, "b", -1, ENOENT, "-"},    {"", -1, "a", -1, ENOENT, "-"},
      {"a=%4", -1, "a", -1, EINVAL, "-"}};
  for (auto [qs, qslen, name, ret, err, value] : cases) {
    char out[16] = "-";
    errno = 0;
    size_t len = qslen < 0 ? strlen(qs) : static_cast<size_t>(qslen);
    EXPECT_EQ(url_qs_field(qs, len, name, out, sizeof out), ret) << qs << " / " << name;
    EXPECT_EQ(errno, err) << qs;
    EXPECT_STREQ(ret < 0 ? value : out, value) << qs;
  }
}

string dec(const string &s) {
  std::vector<unsigned char> out(s.size() + 3, 0xee);
  int r = base64_decode(s.data(), s.size(), out.data(), out.size());
  return r < 0 ? string("<fail>") : string(reinterpret_cast<char *>(out.data()), static_cast<size_t>(r));
}

// Every output size around the exact one: the result, and no byte touched
// past what was written (on failure, the groups that fitted).
TEST(Base64, Rfc4648VectorsAndOutputSizes) {
  const std::pair<const char *, const char *> vectors[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},
                                                           {"foob", "Zm9vYg=="},
                                                           {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"},
                                                           {"foobarbazqux", "Zm9vYmFyYmF6cXV4"}};
  for (auto [plain_text, coded_text] : vectors) {
    string plain = plain_text, coded = coded_text;
    EXPECT_EQ(dec(coded), plain);
    for (size_t outsize = 0; outsize <= coded.size() + 2; ++outsize) {
      char out[24];
      memset(out, 'x', sizeof out);
      int want = outsize > coded.size() ? static_cast<int>(coded.size() + 1) : -1;
      const auto *in = reinterpret_cast<const unsigned char *>(plain.data());
      ASSERT_EQ(base64_encode(in, plain.size(), out, outsize), want) << plain << " " << outsize;
      EXPECT_EQ(string(want < 0 ? coded.c_str() : out), coded);
      EXPECT_EQ(out[want < 0 ? 0 : want], 'x');
    }
    string bare = coded.substr(0, coded.find('='));  // the short last group as it stands
    for (size_t outsize = 0; outsize <= plain.size() + 2; ++outsize) {
      unsigned char out[16];
      memset(out, 0xee, sizeof out);
      int r = base64_decode(bare.data(), bare.size(), out, outsize);
      size_t written = r < 0 ? outsize / 3 * 3 : static_cast<size_t>(r);
      EXPECT_EQ(r, outsize >= plain.size() ? static_cast<int>(plain.size()) : -1) << bare << " " << outsize;
      EXPECT_EQ(memcmp(out, plain.data(), written), 0) << bare << " " << outsize;
      for (size_t i = written; i < sizeof out; ++i)
        ASSERT_EQ(out[i], 0xee) << bare << " " << outsize << " at " << i;
    }
  }
}

TEST(Base64, DecodeSkipsEverythingOutsideTheAlphabet) {
  // A single left-over character is dropped; '=' does not end the input
  // ("ZgZm" + "8" dropped).
  for (auto [in, want] : {std::pair<string, string>{"Zm9v\nYmFy", "foobar"},
                          {"Zg=", "f"},
                          {"Z", ""},
                          {"Zg==Zm8=", "f\x06\x66"},
                          {string("Zm\0009v", 5), "foo"},
                          {" Z m 9 v\r\n\t", "foo"},
                          {"Zm9v*YmFy!", "foobar"},
                          {"\xff\x80Zm9v", "foo"}})
    EXPECT_EQ(dec(in), want) << in;
}

TEST(Base64, RoundTripEveryLengthUpTo200) {
  string data;
  for (size_t len = 0; len <= 200; ++len) {
    data.resize(len);
    for (size_t i = 0; i < len; ++i) data[i] = static_cast<char>((i * 131 + len * 7) & 0xff);
    std::vector<char> coded((len + 2) / 3 * 4 + 1, 'x');
    const auto *in = reinterpret_cast<const unsigned char *>(data.data());
    ASSERT_EQ(base64_encode(in, len, coded.data(), coded.size()), static_cast<int>(coded.size()));
    ASSERT_EQ(strlen(coded.data()), coded.size() - 1);
    EXPECT_EQ(dec(coded.data()), data) << len;
  }
}

}  // namespace
