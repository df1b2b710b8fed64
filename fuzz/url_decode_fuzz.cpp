// url_decode_comp against a plain one-state-at-a-time decoder: the same
// result, errno and bytes (also on failure, where the bytes written before
// the bad escape stay), never more than outsize written or inlen read.
#include <ctype.h>
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "fuzz_input.h"
#include "kelo/encoding.h"

namespace {

int plain_decode(const char *in, size_t inlen, char *out, size_t outsize) {
  if (outsize < 2) return 0;
  size_t n = 0;
  int state = 0, high = 0;
  for (size_t i = 0; i < inlen && in[i] != '\0'; ++i) {
    const unsigned char c = static_cast<unsigned char>(in[i]);
    if (state == 0 && c != '%') {
      out[n++] = static_cast<char>(c);
    } else if (state == 0) {
      state = 1;
      continue;
    } else if (!isxdigit(c)) {
      errno = EINVAL;
      return -1;
    } else if (state == 1) {
      high = c <= '9' ? c - '0' : (c & 15) + 9;
      state = 2;
      continue;
    } else {
      out[n++] = static_cast<char>(high << 4 | (c <= '9' ? c - '0' : (c & 15) + 9));
      state = 0;
    }
    if (outsize - n < 2) break;
  }
  if (state != 0) {
    errno = EINVAL;
    return -1;
  }
  out[n] = '\0';
  return static_cast<int>(n + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  size_t outsize = data[0] % 40;
  FuzzText in(data + 1, size - 1, false);
  char *out = static_cast<char *>(malloc(outsize ? outsize : 1));
  char *ref = static_cast<char *>(malloc(outsize ? outsize : 1));
  memset(out, 0xee, outsize);
  memset(ref, 0xee, outsize);
  errno = 0;
  int n = url_decode_comp(in.p, in.n, out, outsize);
  int err = errno;
  errno = 0;
  if (plain_decode(in.p, in.n, ref, outsize) != n || errno != err || memcmp(out, ref, outsize) != 0) abort();
  free(ref);
  free(out);
  return 0;
}
