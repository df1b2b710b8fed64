// url_decode_comp reads at most inlen bytes, writes at most outsize, and
// NUL-terminates what it reports.
#include <stdint.h>
#include <stdlib.h>

#include "fuzz_input.h"
#include "kelo/encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  size_t outsize = data[0] % 40;
  FuzzText in(data + 1, size - 1, false);
  char *out = static_cast<char *>(malloc(outsize ? outsize : 1));
  int n = url_decode_comp(in.p, in.n, out, outsize);
  if (n > static_cast<int>(outsize)) abort();
  if (n > 0 && out[n - 1] != '\0') abort();
  if (outsize < 2 && n != 0) abort();
  free(out);
  return 0;
}
