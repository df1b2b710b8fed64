// Hex, URL and base64 conversions.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kelo/encoding.h"
#include "support/sandbox.h"

namespace {

// ---------------------------------------------------------------- hex

TEST(Hex, Str2hexLowerCaseAndTerminated) {
  const unsigned char in[] = {0x00, 0xab, 0x7f, 0xff};
  char out[10];
  memset(out, 'x', sizeof out);
  str2hex(out, in, 4);
  EXPECT_STREQ(out, "00ab7fff");
  EXPECT_EQ(out[9], 'x');

  memset(out, 'x', sizeof out);
  str2hex(out, in, 0);  // nothing, not even a NUL
  EXPECT_EQ(out[0], 'x');
}

TEST(Hex, Hex2strPairs) {
  struct Case {
    const char *hex;
    int hexlen, outlen;
    std::vector<unsigned char> want;
  } cases[] = {
      {"ABcd", 4, 2, {0xab, 0xcd}},
      {"0a1B", 4, 4, {0x0a, 0x1b, 0, 0}},  // the rest is cleared
      {"zz41", 4, 2, {0x00, 0x41}},        // a pair starting with a non-digit gives 0
      {"4z", 2, 1, {0x04}},                // a non-digit second: the first digit alone
      {"abc", 3, 2, {0xab, 0x0c}},         // odd: the last pair takes the NUL behind
  };
  for (const auto &c : cases) {
    std::vector<unsigned char> out(c.want.size(), 0xee);
    hex2str(out.data(), c.outlen, c.hex, c.hexlen);
    EXPECT_EQ(out, c.want) << c.hex;
  }
}

TEST(Hex, Hex2strShortBufferWarnsAndConvertsWhatFits) {
  kelo::test::Sandbox sb;
  auto r = kelo::test::run_child([] {
    setenv("KELO_LOG_FILE", "-", 1);
    unsigned char out[2] = {0x11, 0x22};
    hex2str(out, 1, "ABCD", 4);
    printf("%02x %02x\n", out[0], out[1]);
  });
  EXPECT_EQ(r.out, "ab 22\n");
  EXPECT_NE(r.err.find("buflen(1) might not be enough for the hexlen(4) convertion.\n"), std::string::npos) << r.err;
}

TEST(Hex, StringifySizes) {
  const unsigned char in[] = {0xAB, 0x01};
  char out[8];
  memset(out, 'x', sizeof out);
  EXPECT_EQ(hex_stringify(in, 2, out, 5), 4);
  EXPECT_STREQ(out, "ab01");

  memset(out, 'x', sizeof out);
  errno = 0;
  EXPECT_EQ(hex_stringify(in, 2, out, 4), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(out[0], 'x');

  EXPECT_EQ(hex_stringify(in, 0, out, 1), 0);
  EXPECT_EQ(out[0], 'x');  // len 0 writes nothing
  errno = 0;
  EXPECT_EQ(hex_stringify(in, 0, out, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(hex_stringify(in, SIZE_MAX / 2 + 1, out, 8), -1);  // 2 * len wraps
  EXPECT_EQ(errno, EINVAL);
}

TEST(Hex, ParseStoresEveryPairIntoTheFirstByte) {
  struct Case {
    const char *hex;
    size_t outsize;
    int ret;
    unsigned char out0;
  } cases[] = {
      {"0A1B", 2, 0, 0x1b},
      {"0a", 1, 0, 0x2a},  // 'a' counts as 42: (0 << 4) | 42
      {"FF", 1, 0, 0xff},
      {"g0", 1, 0, 0x00},  // 'g' = 48: (48 << 4) truncated is 0
      {"  ", 1, 0, 0xf0},  // ' ' - '0' = -16: (-16 << 4 | -16) & 0xff
      {"", 0, 0, 0xee},
      {"ABC", 2, -1, 0xee},  // odd
      {"ABCD", 1, -1, 0xee},  // too small
  };
  for (const auto &c : cases) {
    unsigned char out[2] = {0xee, 0xee};
    errno = 0;
    EXPECT_EQ(hex_parse(c.hex, strlen(c.hex), out, c.outsize), c.ret) << c.hex;
    EXPECT_EQ(out[0], c.out0) << c.hex;
    EXPECT_EQ(out[1], 0xee) << c.hex;
    if (c.ret < 0) {
      EXPECT_EQ(errno, EINVAL);
    }
  }
}

TEST(Hex, ParseTakesHighBytesUnsigned) {
  // As on the device, where char is unsigned: 0x80 - 55 = 73.
  const char hex[] = {'\x80', '0', 0};
  unsigned char out = 0;
  ASSERT_EQ(hex_parse(hex, 2, &out, 1), 0);
  EXPECT_EQ(out, static_cast<unsigned char>((73u << 4) | 0u));
}

// ---------------------------------------------------------------- url

struct UrlCase {
  std::string in;
  size_t outsize;
  int ret;
  std::string out;  // when ret > 0
};

TEST(Url, DecodeComponent) {
  const UrlCase cases[] = {
      {"a%41b", 8, 4, "aAb"},
      {"a+b", 8, 4, "a+b"},
      {"%2f%2F%7e", 8, 4, "//~"},
      {"abcdef", 4, 4, "abc"},  // cut silently
      {"ab%41cd", 4, 4, "abA"},
      {"", 2, 1, ""},
      {"abc", 2, 2, "a"},
      {"abc", 1, 0, ""},
      {"abc", 0, 0, ""},
      {std::string("ab\0cd", 5), 8, 3, "ab"},  // stops at a NUL
      {"a%4", 8, -1, ""},
      {"a%", 8, -1, ""},
      {"a%g1", 8, -1, ""},
      {"a%1g", 8, -1, ""},
      {std::string("%4\0" "1", 4), 8, -1, ""},
  };
  for (const auto &c : cases) {
    char out[16];
    memset(out, 'x', sizeof out);
    errno = 0;
    int r = url_decode_comp(c.in.data(), c.in.size(), out, c.outsize);
    EXPECT_EQ(r, c.ret) << c.in;
    if (c.ret > 0) {
      EXPECT_EQ(std::string(out, static_cast<size_t>(r)), c.out + std::string(1, '\0')) << c.in;
      EXPECT_EQ(out[c.outsize], 'x') << c.in;
    } else if (c.ret < 0) {
      EXPECT_EQ(errno, EINVAL) << c.in;
    } else {
      EXPECT_EQ(out[0], 'x') << c.in;
    }
  }
}

TEST(Url, DecodeStopsAtInlen) {
  char out[8];
  EXPECT_EQ(url_decode_comp("abcdef", 2, out, sizeof out), 3);
  EXPECT_STREQ(out, "ab");
  // Bytes of an unfinished escape already written stay without a NUL.
  memset(out, 'x', sizeof out);
  EXPECT_EQ(url_decode_comp("ab%4", 4, out, sizeof out), -1);
  EXPECT_EQ(std::string(out, 3), "abx");
}

TEST(Url, QueryField) {
  struct Case {
    const char *qs;
    const char *name;
    int ret;
    const char *value;
  } cases[] = {
      {"xa=1&a=2", "a", 2, "2"},  // the hit inside "xa" is passed over
      {"a=1&a=2", "a", 2, "1"},   // the first field wins
      {"ab=1&a=%41%42", "a", 3, "AB"},
      {"a=1&b=2", "b", 2, "2"},
      {"a=1&ba=2", "a", 2, "1"},
      {"a=&b=2", "a", 1, ""},
      {"a=1&b=2", "c", -1, nullptr},
      {"a1&b=2", "a", -1, nullptr},   // no '=' right after the name
      {"a=1&b", "b", -1, nullptr},    // the NUL behind is not '='
      {"", "a", -1, nullptr},
      {"a=%4", "a", -1, nullptr},     // decoding error passes through
  };
  for (const auto &c : cases) {
    char out[16];
    errno = 0;
    int r = url_qs_field(c.qs, strlen(c.qs), c.name, out, sizeof out);
    EXPECT_EQ(r, c.ret) << c.qs << " / " << c.name;
    if (r > 0) {
      EXPECT_STREQ(out, c.value) << c.qs;
    } else if (c.value == nullptr && strstr(c.qs, "%4") == nullptr) {
      EXPECT_EQ(errno, ENOENT) << c.qs;
    }
  }
}

TEST(Url, QueryFieldValueCutAtQslen) {
  char out[16];
  // Only "a=12" is inside the given length; the value ends there.
  EXPECT_EQ(url_qs_field("a=123&b=4", 4, "a", out, sizeof out), 3);
  EXPECT_STREQ(out, "12");
  // A name ending exactly at qslen sees the '=' just behind: the value is
  // empty rather than a negative length.
  EXPECT_EQ(url_qs_field("a=1", 1, "a", out, sizeof out), 1);
  EXPECT_STREQ(out, "");
}

// ---------------------------------------------------------------- base64

std::string enc(const std::string &s) {
  std::vector<char> out((s.size() + 2) / 3 * 4 + 1, 'x');
  int r = base64_encode(reinterpret_cast<const unsigned char *>(s.data()), s.size(), out.data(), out.size());
  EXPECT_EQ(r, static_cast<int>(out.size()));
  EXPECT_EQ(out.back(), '\0');
  return std::string(out.data());
}

std::string dec(const std::string &s, int *ret = nullptr) {
  std::vector<unsigned char> out(s.size() + 3, 0xee);
  int r = base64_decode(s.data(), s.size(), out.data(), out.size());
  if (ret) *ret = r;
  return r < 0 ? std::string("<fail>") : std::string(reinterpret_cast<char *>(out.data()), static_cast<size_t>(r));
}

TEST(Base64, Rfc4648Vectors) {
  const std::pair<const char *, const char *> vectors[] = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
  };
  for (const auto &[plain, coded] : vectors) {
    EXPECT_EQ(enc(plain), coded);
    EXPECT_EQ(dec(coded), plain);
  }
}

TEST(Base64, EncodeNeedsRoomForTheNul) {
  char out[8];
  memset(out, 'x', sizeof out);
  const auto *foo = reinterpret_cast<const unsigned char *>("foo");
  EXPECT_EQ(base64_encode(foo, 3, out, 4), -1);
  EXPECT_EQ(out[0], 'x');
  EXPECT_EQ(base64_encode(foo, 3, out, 5), 5);
  EXPECT_EQ(base64_encode(foo, 1, out, 5), 5);
  EXPECT_STREQ(out, "Zg==");
  EXPECT_EQ(base64_encode(foo, 0, out, 1), 1);
  EXPECT_STREQ(out, "");
  EXPECT_EQ(base64_encode(foo, 0, out, 0), -1);
}

TEST(Base64, DecodeSkipsEverythingOutsideTheAlphabet) {
  const std::pair<std::string, std::string> cases[] = {
      {"Zm9v\nYmFy", "foobar"},
      {"Zg==", "f"},
      {"Zg=", "f"},
      {"Zg", "f"},
      {"Z", ""},                       // a single left-over character is dropped
      {"Zg==Zm8=", "f\x06\x66"},  // '=' does not end the input: "ZgZm" + "8" dropped
      {std::string("Zm\0" "9v", 5), "foo"},
      {" Z m 9 v\r\n\t", "foo"},
      {"Zm9v*YmFy!", "foobar"},
      {"\xff\x80Zm9v", "foo"},
  };
  for (const auto &[in, want] : cases) {
    EXPECT_EQ(dec(in), want) << in;
  }
}

TEST(Base64, DecodeRoomChecksPerGroup) {
  unsigned char out[8];
  memset(out, 0xee, sizeof out);
  EXPECT_EQ(base64_decode("Zm9vYmFy", 8, out, 5), -1);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(out), 3), "foo");  // the first group stays
  EXPECT_EQ(out[3], 0xee);
  EXPECT_EQ(base64_decode("Zm9vYmE", 7, out, 4), -1);  // 3 + 2 > 4
  EXPECT_EQ(base64_decode("Zm9vYg", 6, out, 3), -1);   // 3 + 1 > 3
  EXPECT_EQ(base64_decode("Zm9vYg", 6, out, 4), 4);
  EXPECT_EQ(base64_decode("", 0, out, 0), 0);
  EXPECT_EQ(base64_decode("Zm9v", 4, out, 2), -1);
}

TEST(Base64, DecodeTouchesNothingPastTheCount) {
  // Every output size around the exact one, with a guard byte pattern.
  const char *text = "Zm9vYmFyYmF6cXV4";  // "foobarbazqux"
  for (size_t outsize = 0; outsize <= 16; ++outsize) {
    unsigned char out[20];
    memset(out, 0xee, sizeof out);
    int r = base64_decode(text, 16, out, outsize);
    size_t written = r < 0 ? outsize / 3 * 3 : static_cast<size_t>(r);
    EXPECT_EQ(r, outsize >= 12 ? 12 : -1) << outsize;
    EXPECT_EQ(memcmp(out, "foobarbazqux", written), 0) << outsize;
    for (size_t i = written; i < sizeof out; ++i) ASSERT_EQ(out[i], 0xee) << outsize << " at " << i;
  }
}

TEST(Base64, RoundTripEveryLengthUpTo200) {
  std::string data;
  for (size_t len = 0; len <= 200; ++len) {
    data.resize(len);
    for (size_t i = 0; i < len; ++i) data[i] = static_cast<char>((i * 131 + len * 7) & 0xff);
    std::string coded = enc(data);
    ASSERT_EQ(coded.size(), (len + 2) / 3 * 4);
    int r = 0;
    EXPECT_EQ(dec(coded, &r), data) << len;
    EXPECT_EQ(r, static_cast<int>(len));
    // Exactly sized output is enough.
    std::vector<unsigned char> exact(len ? len : 1);
    EXPECT_EQ(base64_decode(coded.data(), coded.size(), exact.data(), len), static_cast<int>(len));
    // Line breaks every 76 characters change nothing.
    std::string wrapped;
    for (size_t i = 0; i < coded.size(); i += 76) wrapped += coded.substr(i, 76) + "\r\n";
    EXPECT_EQ(dec(wrapped), data) << len;
  }
}

}  // namespace
