// Packets as built, and both stream parsers on exact-size buffers (ASan
// catches any read past them; the fuzz targets check every answer).
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "kelo/av.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

const Bytes kMagic = {'K', 'E', 'L', 'O'}, kTrailer = {0xA5, 0xA5, 0, 0};

Bytes cmd_packet(uint32_t cmd, const char *payload, int len) {
  uint32_t n = 0;
  auto *p = static_cast<unsigned char *>(construct_packet_cmd(cmd, payload, len, &n));
  Bytes b(p, p + (p ? n : 0));
  free(p);
  return b;
}

const unsigned char kNone = 0, *g_payload;  // what the last handler saw; &kNone when none ran
int on_cmd(int, const unsigned char *payload, uint32_t) { return (g_payload = payload), 0; }
int on_ack(uint32_t, const unsigned char *payload, uint32_t) { return (g_payload = payload), 0; }

TEST(AvPacket, BuiltAndParsed) {
  // Odd payload length: the trailer follows unaligned.
  EXPECT_EQ(cmd_packet(0xA1B2C3D4, "abc", 3),
            cat({kMagic, le32(23), le32(0xA1B2C3D4), le32(0), {'a', 'b', 'c'}, kTrailer}));
  // Lengths that cannot be framed (the size word would overflow) leave *out_size alone.
  uint32_t n = 99;
  EXPECT_EQ(construct_packet_cmd(1, "x", -1, &n), nullptr);
  EXPECT_EQ(construct_packet_ack(1, 0, "x", 0x7FFFFFF0, &n), nullptr);
  EXPECT_EQ(n, 99u);
  const Bytes pkt = cmd_packet(3, "hello", 5);  // 25 bytes, also a valid acknowledgement
  auto sized = [](uint32_t size, Bytes lead = {}) {
    return cat({lead, kMagic, le32(size), le32(2), le32(0), Bytes(8, 0xA5)});
  };
  // Buffers, the counts both parsers return and where the payload they passed
  // lies (-1: no call, 0: NULL).
  struct Case {
    std::string name;
    Bytes buf;
    int cmd_want, ack_want, cmd_at, ack_at;
  };
  std::vector<Case> cases = {
      {"empty command", cmd_packet(5, nullptr, 0), 20, 0, 16, -1},  // payload at the trailer
      {"empty acknowledgement", cat({kMagic, le32(24), le32(6), le32(0), le32(42), kTrailer}), 24, 24, 16, 0},
      {"junk before a whole packet", cat({Bytes(7, 1), pkt}), 32, 32, 23, 27},
      {"magic in the last four bytes", cat({Bytes(20, 'x'), kMagic}), 21, 21, -1, -1},
      // After junk the word at i + size - 4 is inside and tested like any trailer.
      {"size 0 with a trailer at 0", sized(0, kTrailer), 4, 4, 20, 24},
  };
  // Damaged sizes: the trailer word at i + size - 4 would lie before the
  // buffer or wrap; the packet is dropped like one with a wrong trailer.
  for (uint32_t size : {0u, 3u, 0x80000000u, 0xFFFFFFFCu})
    cases.push_back({"size " + std::to_string(size), sized(size), 4, 4, -1, -1});
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const int len = static_cast<int>(c.buf.size());
    auto at = [&](int off) { return off < 0 ? &kNone : off ? c.buf.data() + off : nullptr; };
    g_payload = &kNone;
    EXPECT_EQ(av_cmd_parse(1, c.buf.data(), len, on_cmd), c.cmd_want);
    EXPECT_EQ(g_payload, at(c.cmd_at));
    g_payload = &kNone;
    EXPECT_EQ(av_cmd_ack_parse(c.buf.data(), len, on_ack), c.ack_want);
    EXPECT_EQ(g_payload, at(c.ack_at));
  }
}

}  // namespace
