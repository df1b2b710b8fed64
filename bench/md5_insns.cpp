// MD5 of an n-byte message, repeated, with the library or with OpenSSL.
// Built for armhf and run under qemu by scripts/arm-insns, which counts the
// instructions of two runs with different repeat counts: the difference is
// the cost of the hashes alone, start-up and set-up cancelled out.
//   md5_insns kelo|openssl BYTES REPEATS
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kelo/md5.h"

// OpenSSL's one-shot MD5; declared here because its header's MD5_CTX clashes
// with ours.
extern "C" unsigned char *MD5(const unsigned char *d, size_t n, unsigned char *md);

int main(int argc, char **argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: %s kelo|openssl BYTES REPEATS\n", argv[0]);
    return 2;
  }
  const bool kelo = strcmp(argv[1], "kelo") == 0;
  const size_t n = strtoul(argv[2], nullptr, 10);
  const unsigned long reps = strtoul(argv[3], nullptr, 10);
  auto *msg = static_cast<unsigned char *>(malloc(n + 1));
  if (msg == nullptr) return 1;
  uint32_t x = 12345;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    msg[i] = static_cast<unsigned char>(x >> 16);
  }
  unsigned char d[16] = {};
  unsigned acc = 0;
  for (unsigned long r = 0; r < reps; ++r) {
    if (kelo) {
      MD5_CTX ctx;
      MD5Init(&ctx);
      MD5Update(&ctx, msg, static_cast<unsigned>(n));
      MD5Final(&ctx, d);
    } else {
      MD5(msg, n, d);
    }
    acc += d[0];
  }
  free(msg);
  return acc == 0xFFFFFFFFu ? 1 : 0;  // keeps the hashes from being dropped
}
