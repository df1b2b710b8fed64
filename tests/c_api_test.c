/* The public interface from plain C, linked to the shared object: logging, rand, conversions,
 * MD5, rounding, a packet, the device record. Single process, no fork (runs under qemu). */
#define _POSIX_C_SOURCE 200809L /* setenv, mkstemp */

#include <kelo/kelo.h>

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int failures;

#define CHECK(c) \
  ((c) ? (void)0 : (void)(fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #c), failures++))

struct recorder {
  log_handler base; /* first: the library sees a log_handler */
  int acquired, released;
  char last[128];
};

static void rec_write(log_handler *h, int level, const char *prefix, const char *fmt, va_list ap) {
  struct recorder *r = (struct recorder *)h;
  int n = snprintf(r->last, sizeof r->last, "%d|%s|", level, prefix);
  vsnprintf(r->last + n, sizeof r->last - (size_t)n, fmt, ap);
}
static void rec_acquire(log_handler *h) { ((struct recorder *)h)->acquired++; }
static void rec_release(log_handler *h) { ((struct recorder *)h)->released++; }

int main(void) {
  char path[256], text[4096] = "";
  snprintf(path, sizeof path, "%s/kelo-c-api-XXXXXX", getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp");
  int fd = mkstemp(path);
  CHECK(fd >= 0);
  setenv("KELO_LOG_FILE", path, 1);
  setenv("KELO_LOG_LEVEL", "info", 1);
  log_pwarning("cam0: ", "%s %d", "prefixed", 42);
  log_debug("above the level");
  CHECK(read(fd, text, sizeof text - 1) > 0);
  CHECK(strstr(text, "[  warn] cam0: prefixed 42\n") != NULL && strstr(text, "above") == NULL);
  close(fd);
  unlink(path);

  struct recorder r = {{rec_write, rec_release, rec_acquire, NULL}, 0, 0, ""};
  log_set_handler(1 << 3 | 1 << 7, &r.base);
  log_perr("p:", "x=%d", 7);
  CHECK(r.acquired == 2 && strcmp(r.last, "3|p:|x=7") == 0);
  log_set_handler(0xff, NULL);
  log_err("to nobody");
  CHECK(r.released == 2 && strcmp(r.last, "3|p:|x=7") == 0);

  for (int i = 0; i < 1000; i++) CHECK(rand_range(10, 20) > 0 && rand_range(10, 20) < 20);
  char out[16] = "#";
  static const char pool[] = "bab"; /* a negative index takes the byte before "ab" */
  rand_str(pool + 1, 2, out, 8);
  CHECK(out[0] == '#' && out[8] == '\0' && strspn(out + 1, "ab") == 7);
  const unsigned char bytes[] = {0xab, 0x01};
  CHECK(hex_stringify(bytes, 2, out, 5) == 4 && strcmp(out, "ab01") == 0);
  CHECK(base64_encode((const unsigned char *)"foo", 3, out, sizeof out) == 5 && strcmp(out, "Zm9v") == 0);
  MD5_CTX ctx;
  unsigned char digest[16];
  MD5Init(&ctx);
  MD5Update(&ctx, (const unsigned char *)"abc", 3);
  MD5Final(&ctx, digest);
  char hex[33];
  CHECK(hex_stringify(digest, 16, hex, sizeof hex) == 32 &&
        strcmp(hex, "900150983cd24fb0d6963f7d28e17f72") == 0);
  CHECK(kelo_round(100, 64) == 128);
  uint32_t size = 0;
  void *packet = construct_packet_cmd(7, "xy", 2, &size);
  CHECK(packet != NULL && size == 22);
  free(packet);
  if (access("/dev/shm/kelo-devinfo", R_OK) == 0 || access("/proc/net/wireless", R_OK) == 0) {
    const char *d = dev_get_info();
    CHECK(d == NULL || strcmp(d + DEV_INFO_MODEL, "tarsa.camera.v4") == 0);
  }
  return failures ? 1 : 0;
}
