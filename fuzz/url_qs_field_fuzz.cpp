// url_qs_field on a NUL-terminated query string (the byte after qslen may be
// read, as documented) with a fuzzed field name and output size.
#include <stdint.h>
#include <stdlib.h>

#include "fuzz_input.h"
#include "kelo/encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  size_t outsize = data[0] % 24;
  size_t namelen = data[1] % 8;
  if (namelen > size - 2) namelen = size - 2;
  FuzzText name(data + 2, namelen, true);
  FuzzText qs(data + 2 + namelen, size - 2 - namelen, true);
  char *out = static_cast<char *>(malloc(outsize ? outsize : 1));
  int n = url_qs_field(qs.p, qs.n, name.p, out, outsize);
  if (n > static_cast<int>(outsize)) abort();
  if (n > 0 && out[n - 1] != '\0') abort();
  free(out);
  return 0;
}
