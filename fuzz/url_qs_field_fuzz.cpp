// url_qs_field on a NUL-terminated query string (the byte after qslen may be
// read, as documented) with a fuzzed field name and output size, against a
// plain search: the first "name=" at the start or after a '&' wins, its value
// runs to the next '&' or qslen and is decoded by url_decode_comp; none is
// ENOENT.
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "fuzz_input.h"
#include "kelo/encoding.h"

namespace {

int plain_field(const char *qs, size_t qslen, const char *name, char *out, size_t outsize) {
  const size_t m = strlen(name);
  for (size_t i = 0; i + m <= qslen; ++i) {
    if (memcmp(qs + i, name, m) != 0 || (i > 0 && qs[i - 1] != '&') || qs[i + m] != '=') continue;
    size_t start = i + m + 1, end = start;
    while (end < qslen && qs[end] != '&') ++end;
    return url_decode_comp(qs + start, end > start ? end - start : 0, out, outsize);
  }
  errno = ENOENT;
  return -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  size_t outsize = data[0] % 24;
  size_t namelen = data[1] % 8;
  if (namelen > size - 2) namelen = size - 2;
  FuzzText name(data + 2, namelen, true);
  FuzzText qs(data + 2 + namelen, size - 2 - namelen, true);
  char *out = static_cast<char *>(malloc(outsize ? outsize : 1));
  char *ref = static_cast<char *>(malloc(outsize ? outsize : 1));
  memset(out, 0xee, outsize);
  memset(ref, 0xee, outsize);
  errno = 0;
  int n = url_qs_field(qs.p, qs.n, name.p, out, outsize);
  int err = errno;
  errno = 0;
  if (plain_field(qs.p, qs.n, name.p, ref, outsize) != n || errno != err || memcmp(out, ref, outsize) != 0)
    abort();
  free(ref);
  free(out);
  return 0;
}
