// Packets as built, both stream parsers on exact-size buffers, and a round
// trip over a socket pair.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kelo/av.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes le32(uint32_t v) {
  return {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8),
          static_cast<unsigned char>(v >> 16), static_cast<unsigned char>(v >> 24)};
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

const Bytes kMagic = {'K', 'E', 'L', 'O'};
const Bytes kTrailer = {0xA5, 0xA5, 0, 0};

// Copies a built packet (checking the size it reported) and frees it.
Bytes take(void *p, const uint32_t &n) {  // n by reference: filled in by the call making p
  EXPECT_NE(p, nullptr);
  Bytes b(static_cast<unsigned char *>(p), static_cast<unsigned char *>(p) + (p ? n : 0));
  free(p);
  return b;
}

Bytes cmd_packet(uint32_t cmd, const char *payload, int len) {
  uint32_t n = 0;
  return take(construct_packet_cmd(cmd, payload, len, &n), n);
}

// What the handlers saw.
struct Seen {
  int calls = 0, ctx = 0;
  uint32_t ack = 0, cmd = 0;
  const unsigned char *payload = nullptr;
} seen;

int on_cmd(int ctx, const unsigned char *payload, uint32_t cmd) {
  seen = {seen.calls + 1, ctx, 0, cmd, payload};
  return 123;
}

int on_ack(uint32_t ack, const unsigned char *payload, uint32_t cmd) {
  seen = {seen.calls + 1, 0, ack, cmd, payload};
  return -1;
}

}  // namespace

TEST(AvPacket, BuiltBytes) {
  // Odd payload length: the trailer follows unaligned.
  EXPECT_EQ(cmd_packet(0xA1B2C3D4, "abc", 3),
            cat({kMagic, le32(23), le32(0xA1B2C3D4), le32(0), {'a', 'b', 'c'}, kTrailer}));
  // NULL data with a length gives a zeroed payload of that length.
  uint32_t n = 0;
  EXPECT_EQ(take(construct_packet_ack(1, 0xFFFFFFFE, nullptr, 3, &n), n),
            cat({kMagic, le32(27), le32(1), le32(0), le32(0xFFFFFFFE), {0, 0, 0}, kTrailer}));
  // Lengths that cannot be framed leave *out_size alone.
  n = 99;
  EXPECT_EQ(construct_packet_cmd(1, "x", -1, &n), nullptr);
  EXPECT_EQ(construct_packet_ack(1, 0, "x", 0x7FFFFFF0, &n), nullptr);
  EXPECT_EQ(n, 99u);
  EXPECT_EQ(av_cmd_parse(1, nullptr, 100, on_cmd), 0);
  EXPECT_EQ(av_cmd_ack_parse(nullptr, 100, on_ack), 0);
}

// Buffers, the counts both parsers return for them and where the payload
// they passed lies (-1: no call, 0: NULL). The buffers are vectors of their
// exact size, so ASan catches any read past them.
TEST(AvPacket, Parsers) {
  const Bytes pkt = cmd_packet(3, "hello", 5);  // 25 bytes, also a valid acknowledgement
  Bytes bad_trailer = pkt;
  bad_trailer[21] = 0xA4;
  const Bytes junk7 = {1, 2, 3, 4, 5, 6, 7};
  auto sized = [](uint32_t size, Bytes lead = {}) {
    return cat({lead, kMagic, le32(size), le32(2), le32(0), Bytes(8, 0xA5)});
  };
  struct Case {
    std::string name;
    Bytes buf;
    int cmd_want, ack_want, cmd_at, ack_at;
  };
  std::vector<Case> cases = {
      {"empty command", cmd_packet(5, nullptr, 0), 20, 0, 16, -1},  // payload at the trailer
      {"empty acknowledgement", cat({kMagic, le32(24), le32(6), le32(0xDEAD), le32(42), kTrailer}), 24, 24,
       16, 0},
      {"under the acknowledgement header", Bytes(23, 0), 20, 0, -1, -1},
      {"junk before a whole packet", cat({junk7, pkt}), 32, 32, 23, 27},
      {"40 bytes without magic", Bytes(40, 'x'), 37, 37, -1, -1},
      {"magic in the last four bytes", cat({Bytes(20, 'x'), kMagic}), 21, 21, -1, -1},
      {"magic with less than a header after it", cat({Bytes(10, 'x'), kMagic, Bytes(10, 0)}), 10, 10, -1, -1},
      {"partial packet", Bytes(pkt.begin(), pkt.end() - 1), 0, 0, -1, -1},
      {"wrong trailer", bad_trailer, 4, 4, -1, -1},
      {"two packets back to back", cat({pkt, pkt}), 25, 25, 16, 20},
      {"size larger than the data", sized(1000), 0, 0, -1, -1},
      // After junk the word at i + size - 4 is inside and tested like any trailer.
      {"size 0 after zeros", sized(0, Bytes(8, 0)), 12, 12, -1, -1},
      {"size 4 after junk", sized(4, cat({kTrailer, Bytes(4, 0)})), 12, 12, -1, -1},
      {"size 0 with a trailer at 0", sized(0, kTrailer), 4, 4, 20, 24},
  };
  // Damaged sizes: the trailer word at i + size - 4 would lie before the
  // buffer or wrap; the packet is dropped like one with a wrong trailer.
  for (uint32_t size : {0u, 3u, 0x80000000u, 0xFFFFFFFFu})
    cases.push_back({"size " + std::to_string(size), sized(size), 4, 4, -1, -1});
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const int len = static_cast<int>(c.buf.size());
    const unsigned char *base = c.buf.data();
    auto at = [&](int off) { return off > 0 ? base + off : nullptr; };
    seen = {};
    EXPECT_EQ(av_cmd_parse(1, base, len, on_cmd), c.cmd_want);
    EXPECT_EQ(seen.calls, c.cmd_at >= 0);
    EXPECT_EQ(seen.payload, at(c.cmd_at));
    seen = {};
    EXPECT_EQ(av_cmd_ack_parse(base, len, on_ack), c.ack_want);
    EXPECT_EQ(seen.calls, c.ack_at >= 0);
    EXPECT_EQ(seen.payload, at(c.ack_at));
  }
}

TEST(AvPacket, RoundTripOverSocketpair) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  EXPECT_EQ(send_av_cmd(sv[0], 0x101, "frame", 5), 25);
  EXPECT_EQ(send_av_cmd_ack(sv[0], 0x102, 42, nullptr, 0), 24);
  unsigned char buf[49];
  ASSERT_EQ(recv(sv[1], buf, sizeof buf, MSG_WAITALL), 49);
  seen = {};
  EXPECT_EQ(av_cmd_parse(sv[1], buf, 49, on_cmd), 25);
  EXPECT_EQ(seen.ctx, sv[1]);
  EXPECT_EQ(seen.cmd, 0x101u);
  EXPECT_EQ(memcmp(seen.payload, "frame", 5), 0);
  EXPECT_EQ(av_cmd_ack_parse(buf + 25, 24, on_ack), 24);
  EXPECT_EQ(seen.cmd, 0x102u);
  EXPECT_EQ(seen.ack, 42u);
  close(sv[1]);
  signal(SIGPIPE, SIG_IGN);
  errno = 0;
  EXPECT_EQ(send_av_cmd(sv[0], 1, "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  close(sv[0]);
}
