// hex2str writes out[0 .. outlen-1] only, on NUL-terminated text (an odd
// hexlen reads the byte behind, as documented), with hexlen up to the text.
#include <stdint.h>
#include <stdlib.h>

#include "fuzz_input.h"
#include "kelo/encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > 4096) return 0;
  int outlen = data[0] % 64;
  FuzzText hex(data + 1, size - 1, true);
  auto *out = static_cast<unsigned char *>(malloc(outlen ? static_cast<size_t>(outlen) : 1));
  hex2str(out, outlen, hex.p, static_cast<int>(hex.n));
  free(out);
  return 0;
}
