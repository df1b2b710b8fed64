// The command parser on arbitrary receive buffers, driven like a receiver:
// drop the returned count and call again while data remains.
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "kelo/av.h"

namespace {

volatile unsigned sink;

int on_cmd(int ctx, const unsigned char *payload, uint32_t cmd) {
  // The payload starts inside the buffer; its first word is always there.
  sink = sink + static_cast<unsigned>(ctx) + payload[0] + payload[3] + cmd;
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
    int n = av_cmd_parse(5, buf + off, len - off, on_cmd);
    if (n < 0 || n > len - off) abort();
    if (n == 0) break;
    off += n;
  }
  free(buf);
  return 0;
}
