// Base64 (standard alphabet, '=' padding) into caller buffers.
#include <stdint.h>
#include <string.h>

#include <array>

#include "kelo/encoding.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char kPadCount[3] = {0, 2, 1};
constexpr unsigned char kPad = 254;    // NUL and '='
constexpr unsigned char kOther = 255;  // every byte outside the alphabet

constexpr std::array<unsigned char, 256> make_decode_table() {
  std::array<unsigned char, 256> t{};
  for (auto &v : t) v = kOther;
  for (unsigned i = 0; i < 64; ++i) t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
  t[0] = kPad;
  t['='] = kPad;
  return t;
}
constexpr std::array<unsigned char, 256> kDecode = make_decode_table();

// Two output characters for every 12-bit value: one look-up per half group.
constexpr std::array<uint16_t, 4096> make_pair_table() {
  std::array<uint16_t, 4096> t{};
  for (unsigned i = 0; i < 4096; ++i) {
    auto a = static_cast<unsigned char>(kAlphabet[i >> 6]);
    auto b = static_cast<unsigned char>(kAlphabet[i & 63]);
    t[i] = static_cast<uint16_t>(a | (b << 8));  // byte order of the text
  }
  return t;
}
constexpr std::array<uint16_t, 4096> kPairs = make_pair_table();

inline void put_pair(char *out, unsigned v12) {
  uint16_t p = kPairs[v12];
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  memcpy(out, &p, 2);
#else
  out[0] = static_cast<char>(p & 0xff);
  out[1] = static_cast<char>(p >> 8);
#endif
}

}  // namespace

extern "C" {

KELO_EXPORT int base64_encode(const unsigned char *in, size_t len, char *out, size_t outsize) {
  size_t groups = len / 3 + (len % 3 != 0);
  if (groups > (SIZE_MAX - 1) / 4) return -1;
  size_t need = groups * 4 + 1;
  if (outsize < need) return -1;
  size_t whole = len / 3;
  const unsigned char *p = in;
  char *o = out;
  for (size_t g = 0; g < whole; ++g, p += 3, o += 4) {
    unsigned v = (unsigned{p[0]} << 16) | (unsigned{p[1]} << 8) | p[2];
    put_pair(o, v >> 12);
    put_pair(o + 2, v & 0xfff);
  }
  size_t rest = len % 3;
  if (rest != 0) {
    unsigned v = unsigned{p[0]} << 16;
    if (rest == 2) v |= unsigned{p[1]} << 8;
    put_pair(o, v >> 12);
    put_pair(o + 2, v & 0xfff);
    for (unsigned k = 0; k < kPadCount[rest]; ++k) o[3 - k] = '=';
  }
  out[groups * 4] = '\0';
  return static_cast<int>(need);
}

KELO_EXPORT int base64_decode(const char *in, size_t len, unsigned char *out, size_t outsize) {
  const auto *p = reinterpret_cast<const unsigned char *>(in);
  const unsigned char *end = p + len;
  size_t total = 0;
  uint32_t acc = 0;
  unsigned have = 0;  // characters in acc
  while (p < end) {
    // Fast path: four alphabet characters in a row at a group boundary.
    if (have == 0) {
      while (end - p >= 4) {
        uint32_t a = kDecode[p[0]], b = kDecode[p[1]], c = kDecode[p[2]], d = kDecode[p[3]];
        if ((a | b | c | d) & 0x80) break;
        if (outsize - total < 3) return -1;
        uint32_t v = (a << 18) | (b << 12) | (c << 6) | d;
        out[total] = static_cast<unsigned char>(v >> 16);
        out[total + 1] = static_cast<unsigned char>(v >> 8);
        out[total + 2] = static_cast<unsigned char>(v);
        total += 3;
        p += 4;
      }
      if (p == end) break;
    }
    unsigned char v = kDecode[*p++];
    if (v >= kPad) continue;  // padding, NUL, white space, foreign bytes
    acc = (acc << 6) | v;
    if (++have == 4) {
      if (outsize - total < 3) return -1;
      out[total] = static_cast<unsigned char>(acc >> 16);
      out[total + 1] = static_cast<unsigned char>(acc >> 8);
      out[total + 2] = static_cast<unsigned char>(acc);
      total += 3;
      acc = 0;
      have = 0;
    }
  }
  if (have == 3) {
    if (outsize - total < 2) return -1;
    out[total] = static_cast<unsigned char>(acc >> 10);
    out[total + 1] = static_cast<unsigned char>(acc >> 2);
    total += 2;
  } else if (have == 2) {
    if (outsize - total < 1) return -1;
    out[total] = static_cast<unsigned char>(acc >> 4);
    total += 1;
  }
  return static_cast<int>(total);
}

}  // extern "C"
