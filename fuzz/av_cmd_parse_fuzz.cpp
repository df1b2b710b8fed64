// The command parser on arbitrary receive buffers, driven like a receiver:
// each call must leave the count within the buffer.
#include <stdint.h>

#include "fuzz_input.h"
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
  drive_stream(data, size, [](const unsigned char *p, int n) { return av_cmd_parse(5, p, n, on_cmd); });
  return 0;
}
