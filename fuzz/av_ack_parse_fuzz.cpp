// The acknowledgement parser on arbitrary receive buffers, driven like a receiver:
// each call must leave the count within the buffer.
#include <stdint.h>

#include "fuzz_input.h"
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
  drive_stream(data, size, [](const unsigned char *p, int n) { return av_cmd_ack_parse(p, n, on_ack); });
  return 0;
}
