// AV command packets: builders, senders and the two stream parsers.
#include "kelo/av.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <cstddef>

#include "common/errno_saver.h"

static_assert(sizeof(av_cmd_header) == AV_CMD_HEADER_SIZE);
static_assert(offsetof(av_cmd_header, size) == 4 && offsetof(av_cmd_header, cmd) == 8 &&
              offsetof(av_cmd_header, reserved) == 12);
static_assert(sizeof(av_ack_header) == AV_ACK_HEADER_SIZE);
static_assert(offsetof(av_ack_header, ack_value) == 16);
#if defined(__arm__)
static_assert(alignof(av_cmd_header) == 4 && alignof(av_ack_header) == 4);
#endif

namespace kelo::av {
namespace {

constexpr unsigned char kMagic[4] = {'K', 'E', 'L', 'O'};

// Words sit at any alignment (the trailer follows the payload directly).
uint32_t load32(const unsigned char *p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

void store32(unsigned char *p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}

// ack_value NULL builds a command, otherwise an acknowledgement carrying it.
unsigned char *build(uint32_t cmd, const uint32_t *ack_value, const void *data, int len, uint32_t *out_size) {
  const int head = ack_value ? AV_ACK_HEADER_SIZE : AV_CMD_HEADER_SIZE;
  // A negative length or one that overflows the size word cannot be framed.
  if (len < 0 || len > INT_MAX - head - 4) {
    errno = EINVAL;
    return nullptr;
  }
  const size_t size = static_cast<size_t>(len) + static_cast<size_t>(head) + 4;
  auto *p = static_cast<unsigned char *>(calloc(1, size));
  if (p == nullptr) return nullptr;
  memcpy(p, kMagic, 4);
  store32(p + 4, static_cast<uint32_t>(size));
  store32(p + 8, cmd);
  store32(p + 12, 0);
  if (ack_value) store32(p + 16, *ack_value);
  if (data != nullptr && len > 0) memcpy(p + head, data, static_cast<size_t>(len));
  if (out_size) *out_size = static_cast<uint32_t>(size);
  store32(p + head + len, AV_PACKET_TRAILER);
  return p;
}

int send_packet(int fd, unsigned char *packet, uint32_t size) {
  if (packet == nullptr) return -1;
  ssize_t n = send(fd, packet, size, 0);
  ErrnoSaver keep;
  free(packet);
  return static_cast<int>(n);
}

// Finds one packet in buf[0, len) with smallest size `head_min` and calls
// deliver(i, size) for it. Returns the count of bytes to drop.
template <typename Deliver>
int parse(const unsigned char *buf, int len, int head_min, Deliver deliver) {
  if (buf == nullptr || len < head_min) return 0;
  int i = 0;
  for (; i < len - 4; ++i)
    if (memcmp(buf + i, kMagic, 4) == 0) break;
  // Not found: the last three bytes may begin a magic. A magic in the very
  // last four bytes is not looked at either (i < len - 4); senders rely on
  // nothing else, keep it.
  if (i >= len - 4) return len - 3;
  if (len - i < head_min) return i;
  const uint32_t size = load32(buf + i + 4);
  if (len - i < static_cast<int32_t>(size)) return i;  // signed: huge sizes pass here
  // The trailer word sits at i + size - 4. A damaged size below 4 puts it
  // before the packet, one of 2^31 or more wraps: when that word is not
  // inside buf, the packet is treated like one with a wrong trailer.
  const int64_t trailer = static_cast<int64_t>(i) + static_cast<int32_t>(size) - 4;
  if (static_cast<int32_t>(size) < 0 || trailer < 0 || trailer + 4 > len) return i + 4;
  if (load32(buf + trailer) != AV_PACKET_TRAILER) return i + 4;
  deliver(i, size);
  return i + static_cast<int>(size);
}

}  // namespace
}  // namespace kelo::av

extern "C" {

KELO_EXPORT void *construct_packet_cmd(uint32_t cmd, const void *data, int len, uint32_t *out_size) {
  return kelo::av::build(cmd, nullptr, data, len, out_size);
}

KELO_EXPORT void *construct_packet_ack(uint32_t cmd, uint32_t ack_value, const void *data, int len,
                                       uint32_t *out_size) {
  return kelo::av::build(cmd, &ack_value, data, len, out_size);
}

KELO_EXPORT int send_av_cmd(int fd, uint32_t cmd, const void *data, int len) {
  uint32_t size = 0;
  auto *p = kelo::av::build(cmd, nullptr, data, len, &size);
  return kelo::av::send_packet(fd, p, size);
}

KELO_EXPORT int send_av_cmd_ack(int fd, uint32_t cmd, uint32_t ack_value, const void *data, int len) {
  uint32_t size = 0;
  auto *p = kelo::av::build(cmd, &ack_value, data, len, &size);
  return kelo::av::send_packet(fd, p, size);
}

KELO_EXPORT int av_cmd_parse(int ctx, const unsigned char *buf, int len, av_cmd_handler handler) {
  return kelo::av::parse(buf, len, AV_CMD_MIN_SIZE, [&](int i, uint32_t) {
    if (handler) handler(ctx, buf + i + AV_CMD_HEADER_SIZE, kelo::av::load32(buf + i + 8));
  });
}

KELO_EXPORT int av_cmd_ack_parse(const unsigned char *buf, int len, av_ack_handler handler) {
  return kelo::av::parse(buf, len, AV_ACK_MIN_SIZE, [&](int i, uint32_t size) {
    // An empty payload is passed as NULL here (the command parser points at
    // the trailer instead); receivers tell the two apart by this.
    const unsigned char *payload = size == AV_ACK_MIN_SIZE ? nullptr : buf + i + AV_ACK_HEADER_SIZE;
    if (handler) handler(kelo::av::load32(buf + i + 16), payload, kelo::av::load32(buf + i + 8));
  });
}

}  // extern "C"
