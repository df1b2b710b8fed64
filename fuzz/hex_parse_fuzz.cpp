// hex_parse against the plain rule: an odd hexlen or too small an output
// fails with EINVAL; otherwise every pair (c - '0' up to '9', c - 55 above,
// bytes unsigned) is stored into out[0] and the rest of out is untouched.
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>

#include "fuzz_input.h"
#include "kelo/encoding.h"

namespace {

int nibble(char c) {
  const int u = static_cast<unsigned char>(c);
  return u <= '9' ? u - '0' : u - 55;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  size_t outsize = data[0] % 16;
  FuzzText in(data + 1, size - 1, false);
  auto *out = static_cast<unsigned char *>(malloc(outsize ? outsize : 1));
  for (size_t i = 0; i < outsize; ++i) out[i] = 0xee;
  errno = 0;
  int r = hex_parse(in.p, in.n, out, outsize);
  const bool fails = in.n % 2 != 0 || outsize < in.n / 2;
  if (r != (fails ? -1 : 0) || errno != (fails ? EINVAL : 0)) abort();
  unsigned char want0 = 0xee;
  for (size_t i = 0; !fails && i < in.n; i += 2)
    want0 = static_cast<unsigned char>(nibble(in.p[i]) << 4 | nibble(in.p[i + 1]));
  for (size_t i = 0; i < outsize; ++i)
    if (out[i] != (i == 0 ? want0 : 0xee)) abort();
  free(out);
  return 0;
}
