// hex2str writes out[0 .. outlen-1] only, on NUL-terminated text (an odd
// hexlen reads the byte behind, as documented), with hexlen up to the text;
// and it reads back what hex_stringify wrote.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "fuzz_input.h"
#include "kelo/encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > 4096) return 0;
  int outlen = data[0] % 64;
  FuzzText hex(data + 1, size - 1, true);
  auto *out = static_cast<unsigned char *>(malloc(outlen ? static_cast<size_t>(outlen) : 1));
  hex2str(out, outlen, hex.p, static_cast<int>(hex.n));
  free(out);

  const size_t n = size - 1, tlen = 2 * n + 1;
  char *text = static_cast<char *>(malloc(tlen));
  auto *back = static_cast<unsigned char *>(malloc(n ? n : 1));
  if (hex_stringify(data + 1, n, text, tlen) != static_cast<int>(2 * n)) abort();
  if (n > 0) {
    hex2str(back, static_cast<int>(n), text, static_cast<int>(2 * n));
    if (memcmp(back, data + 1, n) != 0) abort();
  }
  free(back);
  free(text);
  return 0;
}
