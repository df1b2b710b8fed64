// MD5 fed in chunks of fuzzed sizes gives OpenSSL's digest of the whole input.
// Byte 0 seeds the chunk sizes; the rest is the message.
#include <openssl/evp.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "kelo/md5.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  static const unsigned kChunks[] = {1, 3, 55, 56, 63, 64, 65, 129, 1000};
  unsigned seed = data[0];
  const unsigned char *msg = data + 1;
  const size_t len = size - 1;
  MD5_CTX ctx;
  MD5Init(&ctx);
  for (size_t off = 0, n; off < len; off += n) {
    n = kChunks[seed % 9];
    seed = seed * 1103515245u + 12345u;
    if (n > len - off) n = len - off;
    MD5Update(&ctx, msg + off, static_cast<unsigned>(n));
  }
  unsigned char got[16], want[16];
  MD5Final(&ctx, got);
  if (EVP_Digest(msg, len, want, nullptr, EVP_md5(), nullptr) != 1 || memcmp(got, want, 16) != 0) abort();
  return 0;
}
