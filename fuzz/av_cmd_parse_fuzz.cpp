// The command parser on arbitrary receive buffers, driven like a receiver:
// each call must answer one of the counts av_check allows.
#include <stdint.h>

#include "av_check.h"
#include "fuzz_input.h"
#include "kelo/av.h"

namespace {

volatile unsigned sink;
bool g_delivered;
const unsigned char *g_payload;

int on_cmd(int ctx, const unsigned char *payload, uint32_t cmd) {
  // The payload starts inside the buffer; its first word is always there.
  sink = sink + static_cast<unsigned>(ctx) + payload[0] + payload[3] + cmd;
  g_delivered = true;
  g_payload = payload;
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  drive_stream(data, size, [](const unsigned char *p, int n) {
    g_delivered = false;
    int r = av_cmd_parse(5, p, n, on_cmd);
    av_check(p, n, 20, r, g_delivered, g_payload, 16);
    return r;
  });
  return 0;
}
