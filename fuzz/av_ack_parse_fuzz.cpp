// The acknowledgement parser on arbitrary receive buffers, driven like a receiver:
// each call must answer one of the counts av_check allows.
#include <stdint.h>

#include "av_check.h"
#include "fuzz_input.h"
#include "kelo/av.h"

namespace {

volatile unsigned sink;
bool g_delivered;
const unsigned char *g_payload;

int on_ack(uint32_t ack, const unsigned char *payload, uint32_t cmd) {
  // NULL for an empty payload; otherwise its first word is inside the buffer.
  sink = sink + ack + (payload ? payload[0] + payload[3] : 0u) + cmd;
  g_delivered = true;
  g_payload = payload;
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  drive_stream(data, size, [](const unsigned char *p, int n) {
    g_delivered = false;
    int r = av_cmd_ack_parse(p, n, on_ack);
    av_check(p, n, 24, r, g_delivered, g_payload, 20);
    return r;
  });
  return 0;
}
