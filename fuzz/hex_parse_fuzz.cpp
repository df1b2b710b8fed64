// hex_parse reads hexlen bytes and touches out[0] only.
#include <stdint.h>
#include <stdlib.h>

#include "fuzz_input.h"
#include "kelo/encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  size_t outsize = data[0] % 16;
  FuzzText in(data + 1, size - 1, false);
  auto *out = static_cast<unsigned char *>(malloc(outsize ? outsize : 1));
  for (size_t i = 0; i < outsize; ++i) out[i] = 0xee;
  int r = hex_parse(in.p, in.n, out, outsize);
  if (r == 0) {
    for (size_t i = 1; i < outsize; ++i)
      if (out[i] != 0xee) abort();
  } else if (in.n % 2 == 0 && outsize >= in.n / 2) {
    abort();
  }
  free(out);
  return 0;
}
