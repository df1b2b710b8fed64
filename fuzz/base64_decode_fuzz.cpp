// base64_decode never writes past outsize; what it decodes encodes back to
// text that decodes to the same bytes.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "fuzz_input.h"
#include "kelo/encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  size_t outsize = (size - 1) * data[0] / 255 + (data[0] & 3);  // from none to enough
  FuzzText in(data + 1, size - 1, false);
  auto *out = static_cast<unsigned char *>(malloc(outsize ? outsize : 1));
  int n = base64_decode(in.p, in.n, out, outsize);
  if (n > static_cast<int>(outsize)) abort();
  if (n > 0) {
    size_t elen = (static_cast<size_t>(n) + 2) / 3 * 4 + 1;
    char *text = static_cast<char *>(malloc(elen));
    if (base64_encode(out, static_cast<size_t>(n), text, elen) != static_cast<int>(elen)) abort();
    if (base64_encode(out, static_cast<size_t>(n), text, elen - 1) != -1) abort();
    auto *again = static_cast<unsigned char *>(malloc(static_cast<size_t>(n)));
    if (base64_decode(text, elen - 1, again, static_cast<size_t>(n)) != n) abort();
    if (memcmp(again, out, static_cast<size_t>(n)) != 0) abort();
    free(again);
    free(text);
  }
  free(out);
  return 0;
}
