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
  for (unsigned i = 0; i < 64; ++i)
    t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
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

// The decoding table pre-shifted for each position of a group: OR-ing four
// look-ups gives the 24-bit value, and bit 31 marks a byte outside the
// alphabet anywhere in the group.
struct ShiftedTables {
  uint32_t t[4][256];
};
constexpr ShiftedTables make_shifted() {
  ShiftedTables s{};
  for (unsigned pos = 0; pos < 4; ++pos)
    for (unsigned c = 0; c < 256; ++c)
      s.t[pos][c] = kDecode[c] >= kPad ? 0x80000000u : uint32_t{kDecode[c]} << (18 - 6 * pos);
  return s;
}
constexpr ShiftedTables kShifted = make_shifted();

inline uint32_t group_value(const unsigned char *p) {
  return kShifted.t[0][p[0]] | kShifted.t[1][p[1]] | kShifted.t[2][p[2]] | kShifted.t[3][p[3]];
}

// Stores the three bytes of v (24 bits) with one 4-byte store; the fourth
// byte is scratch that the caller overwrites at once.
inline void put4(unsigned char *out, uint32_t v) {
  uint32_t be = __builtin_bswap32(v << 8);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  memcpy(out, &be, 4);
#else
  uint32_t w = v << 8;
  memcpy(out, &w, 4);
  (void)be;
#endif
}

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
    // Fast path: groups of four alphabet characters at a group boundary.
    if (have == 0) {
      // Four groups per round: the first three are stored with 4-byte stores
      // whose scratch byte the next group overwrites, so nothing past the
      // count is ever touched.
      while (end - p >= 16 && outsize - total >= 12) {
        uint32_t v0 = group_value(p), v1 = group_value(p + 4);
        uint32_t v2 = group_value(p + 8), v3 = group_value(p + 12);
        if ((v0 | v1 | v2 | v3) & 0x80000000u) break;
        put4(out + total, v0);
        put4(out + total + 3, v1);
        put4(out + total + 6, v2);
        out[total + 9] = static_cast<unsigned char>(v3 >> 16);
        out[total + 10] = static_cast<unsigned char>(v3 >> 8);
        out[total + 11] = static_cast<unsigned char>(v3);
        total += 12;
        p += 16;
      }
      while (end - p >= 4) {
        uint32_t v = group_value(p);
        if (v & 0x80000000u) break;
        if (outsize - total < 3) return -1;
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
