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
  return {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v >> 16),
          static_cast<unsigned char>(v >> 24)};
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

const Bytes kMagic = {'K', 'E', 'L', 'O'};
const Bytes kTrailer = {0xA5, 0xA5, 0, 0};

Bytes cmd_packet(uint32_t cmd, const std::string &payload) {
  void *p = nullptr;
  uint32_t n = 0;
  p = construct_packet_cmd(cmd, payload.data(), static_cast<int>(payload.size()), &n);
  Bytes b(static_cast<unsigned char *>(p), static_cast<unsigned char *>(p) + n);
  free(p);
  return b;
}

// What the handlers saw.
struct Seen {
  int calls = 0;
  int ctx = 0;
  uint32_t ack = 0, cmd = 0;
  const unsigned char *payload = nullptr;
};
Seen seen;

int on_cmd(int ctx, const unsigned char *payload, uint32_t cmd) {
  ++seen.calls;
  seen.ctx = ctx;
  seen.payload = payload;
  seen.cmd = cmd;
  return 123;
}

int on_ack(uint32_t ack, const unsigned char *payload, uint32_t cmd) {
  ++seen.calls;
  seen.ack = ack;
  seen.payload = payload;
  seen.cmd = cmd;
  return -1;
}

int parse_cmd(const Bytes &b) { return av_cmd_parse(77, b.data(), static_cast<int>(b.size()), on_cmd); }
int parse_ack(const Bytes &b) { return av_cmd_ack_parse(b.data(), static_cast<int>(b.size()), on_ack); }

}  // namespace

TEST(AvBuild, CommandBytes) {
  uint32_t n = 0;
  auto *p = static_cast<unsigned char *>(construct_packet_cmd(7, nullptr, 0, &n));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(n, 20u);
  EXPECT_EQ(Bytes(p, p + n), cat({kMagic, le32(20), le32(7), le32(0), kTrailer}));
  free(p);

  // Odd payload length: the trailer follows unaligned.
  EXPECT_EQ(cmd_packet(0xA1B2C3D4, "abc"),
            cat({kMagic, le32(23), le32(0xA1B2C3D4), le32(0), {'a', 'b', 'c'}, kTrailer}));
}

TEST(AvBuild, AckBytes) {
  uint32_t n = 0;
  auto *p = static_cast<unsigned char *>(construct_packet_ack(9, 0xFFFFFFFE, "xy", 2, &n));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(n, 26u);
  EXPECT_EQ(Bytes(p, p + n), cat({kMagic, le32(26), le32(9), le32(0), le32(0xFFFFFFFE), {'x', 'y'}, kTrailer}));
  free(p);
  // NULL data with a length gives a zeroed payload of that length.
  p = static_cast<unsigned char *>(construct_packet_ack(1, 2, nullptr, 3, &n));
  EXPECT_EQ(Bytes(p, p + n), cat({kMagic, le32(27), le32(1), le32(0), le32(2), {0, 0, 0}, kTrailer}));
  free(p);
}

TEST(AvBuild, RejectsLengthsThatCannotBeFramed) {
  uint32_t n = 99;
  EXPECT_EQ(construct_packet_cmd(1, "x", -1, &n), nullptr);
  EXPECT_EQ(construct_packet_ack(1, 0, "x", 0x7FFFFFF0, &n), nullptr);
  EXPECT_EQ(n, 99u);
  EXPECT_EQ(send_av_cmd(-1, 1, nullptr, -5), -1);
}

TEST(AvParse, EmptyPayloads) {
  Bytes c = cmd_packet(5, "");
  seen = {};
  EXPECT_EQ(parse_cmd(c), 20);
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.ctx, 77);
  EXPECT_EQ(seen.cmd, 5u);
  EXPECT_EQ(seen.payload, c.data() + 16);  // at the trailer, not NULL

  Bytes a = cat({kMagic, le32(24), le32(6), le32(0xDEAD), le32(42), kTrailer});
  seen = {};
  EXPECT_EQ(parse_ack(a), 24);
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.ack, 42u);
  EXPECT_EQ(seen.cmd, 6u);
  EXPECT_EQ(seen.payload, nullptr);

  Bytes a2 = cat({kMagic, le32(25), le32(6), le32(0), le32(1), {'z'}, kTrailer});
  seen = {};
  EXPECT_EQ(parse_ack(a2), 25);
  EXPECT_EQ(seen.payload, a2.data() + 20);
}

// Table of buffers and the count the command parser returns for each.
TEST(AvParse, DropCounts) {
  const Bytes pkt = cmd_packet(3, "hello");  // 25 bytes
  Bytes bad_trailer = pkt;
  bad_trailer[21] = 0xA4;
  const Bytes junk7 = {1, 2, 3, 4, 5, 6, 7};
  struct Case {
    const char *name;
    Bytes buf;
    int want;
    int calls;
  };
  const std::vector<Case> cases = {
      {"shorter than a header", Bytes(19, 0), 0, 0},
      {"negative length counts as short", {}, 0, 0},
      {"junk before a whole packet", cat({junk7, pkt}), 32, 1},
      {"40 bytes without magic", Bytes(40, 'x'), 37, 0},
      {"magic in the last four bytes", cat({Bytes(20, 'x'), kMagic}), 21, 0},
      {"magic with less than a header after it", cat({Bytes(10, 'x'), kMagic, Bytes(10, 0)}), 10, 0},
      {"partial packet", Bytes(pkt.begin(), pkt.end() - 1), 0, 0},
      {"partial packet after junk", cat({junk7, Bytes(pkt.begin(), pkt.end() - 2)}), 7, 0},
      {"wrong trailer", bad_trailer, 4, 0},
      {"wrong trailer after junk", cat({junk7, bad_trailer}), 11, 0},
      {"two packets back to back", cat({pkt, pkt}), 25, 1},
      {"whole packet", pkt, 25, 1},
  };
  for (const auto &c : cases) {
    seen = {};
    int len = c.buf.empty() ? -5 : static_cast<int>(c.buf.size());
    EXPECT_EQ(av_cmd_parse(1, c.buf.empty() ? pkt.data() : c.buf.data(), len, on_cmd), c.want) << c.name;
    EXPECT_EQ(seen.calls, c.calls) << c.name;
  }
  EXPECT_EQ(av_cmd_parse(1, nullptr, 100, on_cmd), 0);
  EXPECT_EQ(av_cmd_ack_parse(nullptr, 100, on_ack), 0);
}

// Junk before a partial packet is dropped first; once the rest has
// arrived the packet is delivered from the front.
TEST(AvParse, JunkThenPacketInTwoCalls) {
  const Bytes pkt = cmd_packet(11, "pay");
  Bytes buf = cat({{9, 9, 9, 9, 9, 9, 9}, Bytes(pkt.begin(), pkt.begin() + 20)});
  seen = {};
  int n = parse_cmd(buf);
  EXPECT_EQ(n, 7);
  EXPECT_EQ(seen.calls, 0);
  buf.erase(buf.begin(), buf.begin() + n);
  buf.insert(buf.end(), pkt.begin() + 20, pkt.end());
  EXPECT_EQ(parse_cmd(buf), 23);
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.cmd, 11u);
  EXPECT_EQ(memcmp(seen.payload, "pay", 3), 0);
}

// Damaged size words: a size below 4 points the trailer test before the
// packet; only a trailer inside the buffer may be looked at.
TEST(AvParse, DamagedSizes) {
  for (uint32_t size : {0u, 1u, 2u, 3u, 0x80000000u, 0xFFFFFFFFu, 0xFFFFFFFCu}) {
    Bytes at0 = cat({kMagic, le32(size), le32(1), le32(0), Bytes(8, 0xA5)});
    seen = {};
    EXPECT_EQ(parse_cmd(at0), 4) << size;
    EXPECT_EQ(parse_ack(at0), 4) << size;
    EXPECT_EQ(seen.calls, 0) << size;
  }
  // With junk before the magic the word at i + size - 4 lies inside the
  // buffer and is tested like any trailer: A5 A5 00 00 there delivers.
  Bytes lead = cat({kTrailer, {0, 0, 0, 0}});
  for (uint32_t size : {0u, 4u}) {
    Bytes b = cat({lead, kMagic, le32(size), le32(2), le32(0), Bytes(8, 0)});
    seen = {};
    // size 0: trailer word at 4 (zeros) -> wrong trailer; size 4: at 8 = magic -> wrong.
    EXPECT_EQ(parse_cmd(b), 12) << size;
    EXPECT_EQ(seen.calls, 0);
  }
  Bytes b = cat({kTrailer, kMagic, le32(0), le32(2), le32(0), Bytes(8, 0)});
  seen = {};
  EXPECT_EQ(parse_cmd(b), 4);  // trailer found at 0: delivered, returns i + 0
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.cmd, 2u);
  // Sizes bigger than the data wait for more.
  Bytes big = cat({kMagic, le32(1000), le32(1), le32(0), Bytes(8, 0)});
  EXPECT_EQ(parse_cmd(big), 0);
}

TEST(AvParse, AckTable) {
  Bytes ack;
  {
    uint32_t n = 0;
    auto *p = static_cast<unsigned char *>(construct_packet_ack(8, 99, "abcd", 4, &n));
    ack.assign(p, p + n);
    free(p);
  }
  seen = {};
  EXPECT_EQ(parse_ack(Bytes(ack.begin(), ack.end() - 1)), 0);
  EXPECT_EQ(parse_ack(cat({{1, 2, 3}, Bytes(ack.begin(), ack.end() - 1)})), 3);
  EXPECT_EQ(parse_ack(Bytes(23, 0)), 0);  // under the acknowledgement header
  EXPECT_EQ(parse_ack(cat({kMagic, Bytes(20, 0)})), 4);
  EXPECT_EQ(seen.calls, 0);
  EXPECT_EQ(parse_ack(cat({{1, 2, 3}, ack})), 31);
  EXPECT_EQ(seen.calls, 1);
  const Bytes two = cat({ack, ack});
  EXPECT_EQ(parse_ack(two), 28);
  EXPECT_EQ(seen.calls, 2);
  EXPECT_EQ(seen.ack, 99u);
  EXPECT_EQ(memcmp(seen.payload, "abcd", 4), 0);
}

TEST(AvSend, RoundTripOverSocketpair) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  EXPECT_EQ(send_av_cmd(sv[0], 0x101, "frame", 5), 25);
  EXPECT_EQ(send_av_cmd_ack(sv[0], 0x101, 0, nullptr, 0), 24);
  EXPECT_EQ(send_av_cmd(sv[0], 0x102, nullptr, 0), 20);
  unsigned char buf[256];
  ssize_t got = 0;
  while (got < 69) {
    ssize_t n = recv(sv[1], buf + got, sizeof buf - static_cast<size_t>(got), 0);
    ASSERT_GT(n, 0);
    got += n;
  }
  seen = {};
  int off = av_cmd_parse(sv[1], buf, static_cast<int>(got), on_cmd);
  EXPECT_EQ(off, 25);
  EXPECT_EQ(seen.ctx, sv[1]);
  EXPECT_EQ(seen.cmd, 0x101u);
  EXPECT_EQ(memcmp(seen.payload, "frame", 5), 0);
  int off2 = av_cmd_ack_parse(buf + off, static_cast<int>(got) - off, on_ack);
  EXPECT_EQ(off2, 24);
  EXPECT_EQ(seen.payload, nullptr);
  EXPECT_EQ(av_cmd_parse(0, buf + off + off2, 20, on_cmd), 20);
  EXPECT_EQ(seen.cmd, 0x102u);
  EXPECT_EQ(seen.calls, 3);

  close(sv[1]);
  signal(SIGPIPE, SIG_IGN);
  errno = 0;
  EXPECT_EQ(send_av_cmd(sv[0], 1, "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  close(sv[0]);
}
