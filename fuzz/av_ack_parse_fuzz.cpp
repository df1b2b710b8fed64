// The acknowledgement parser on arbitrary receive buffers, driven like a receiver:
// drop the returned count and call again while data remains.
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "kelo/av.h"

namespace {

volatile unsigned sink;

int on_ack(uint32_t ack, const unsigned char *payload, uint32_t cmd) {
  // NULL for an empty payload; otherwise its first word is inside the buffer.
  sink = sink + ack + (payload ? payload[0] + payload[3] : 0u) + cmd;
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > INT_MAX) return 0;
  // Exact-size heap copy, so a read past the end is caught.
  auto *buf = static_cast<unsigned char *>(malloc(size ? size : 1));
  if (size) memcpy(buf, data, size);
  int len = static_cast<int>(size), off = 0;
  while (off < len) {
    int n = av_cmd_ack_parse(buf + off, len - off, on_ack);
    if (n < 0 || n > len - off) abort();
    if (n == 0) break;
    off += n;
  }
  free(buf);
  return 0;
}
