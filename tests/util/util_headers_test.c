/* The utility headers compile as C11 and their functions are exported. */
#include <string.h>

#include <kelo/encoding.h>
#include <kelo/file.h>
#include <kelo/md5.h>
#include <kelo/mem.h>
#include <kelo/net.h>
#include <kelo/time.h>

int main(void) {
  MD5_CTX ctx;
  unsigned char d[16];
  char hex[33], b64[8];
  void *p = kelo_malloc(100, 64);
  MD5Init(&ctx);
  MD5Update(&ctx, (const unsigned char *)"abc", 3);
  MD5Final(&ctx, d);
  if (hex_stringify(d, 16, hex, sizeof hex) != 32 || strcmp(hex, "900150983cd24fb0d6963f7d28e17f72") != 0)
    return 1;
  if (base64_encode((const unsigned char *)"foo", 3, b64, sizeof b64) != 5 || strcmp(b64, "Zm9v") != 0)
    return 2;
  if (p == NULL || ((size_t)p & 63) != 0 || kelo_round(100, 64) != 128) return 3;
  kelo_free(p);
  (void)&time_monotonic;
  (void)&net_iw_stat;
  (void)&dir_usage;
  return 0;
}
