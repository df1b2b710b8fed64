/* The public interface used from plain C, the way a service uses it: log
 * through a file sink and an own handler, random values, device information.
 * Linked to the shared object. Single process, no fork (runs under qemu). */
#define _POSIX_C_SOURCE 200809L /* setenv, mkstemp */

#include <kelo/kelo.h>

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int failures;

#define CHECK(cond)                                                            \
  do {                                                                         \
    if (!(cond)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      failures++;                                                              \
    }                                                                          \
  } while (0)

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

static char *read_all(const char *path) {
  static char buf[4096];
  FILE *f = fopen(path, "r");
  size_t n = 0;
  if (f != NULL) {
    n = fread(buf, 1, sizeof buf - 1, f);
    fclose(f);
  }
  buf[n] = '\0';
  return buf;
}

static void test_log(void) {
  const char *tmp = getenv("TMPDIR");
  char path[256];
  snprintf(path, sizeof path, "%s/kelo-c-api-XXXXXX", tmp && *tmp ? tmp : "/tmp");
  int fd = mkstemp(path);
  CHECK(fd >= 0);
  if (fd < 0) return;
  close(fd);
  setenv("KELO_LOG_FILE", path, 1);
  setenv("KELO_LOG_LEVEL", "info", 1);

  log_info("from C %d", 42);
  log_pwarning("cam0: ", "%s", "prefixed");
  log_debug("above the level");
  const char *text = read_all(path);
  CHECK(strstr(text, "] from C 42\n") != NULL);
  CHECK(strstr(text, "[  info] ") != NULL);
  CHECK(strstr(text, "[  warn] cam0: prefixed\n") != NULL);
  CHECK(strstr(text, "above the level") == NULL);

  struct recorder r;
  memset(&r, 0, sizeof r);
  r.base.write = rec_write;
  r.base.acquire = rec_acquire;
  r.base.release = rec_release;
  log_set_handler(1 << 3 | 1 << 7, &r.base);
  CHECK(r.acquired == 2);
  log_perr("p:", "x=%d", 7);
  CHECK(strcmp(r.last, "3|p:|x=7") == 0);
  log_debug("y");
  CHECK(strcmp(r.last, "7||y") == 0);
  log_set_handler(0xff, NULL);
  CHECK(r.released == 2);
  log_err("to nobody");
  CHECK(strcmp(r.last, "7||y") == 0);
  unlink(path);
}

static void test_rand(void) {
  for (int i = 0; i < 1000; i++) {
    int v = rand_range(10, 20); /* lo + signed r % 10: 1 .. 19 */
    CHECK(v > 0 && v < 20);
  }
  char out[9];
  out[0] = '#';
  rand_str("ab", 2, out, 8);
  CHECK(out[0] == '#' && out[8] == '\0');
  for (int i = 1; i < 8; i++) CHECK(out[i] == 'a' || out[i] == 'b');
}

static void test_devinfo(void) {
  /* The first opener of the region reads the wireless list and aborts when
   * the machine has none (build hosts and containers often do not). */
  if (access("/dev/shm/kelo-devinfo", R_OK) != 0 && access("/proc/net/wireless", R_OK) != 0) {
    printf("dev_get_info: skipped, no /proc/net/wireless on this machine\n");
    return;
  }
  const char *d = dev_get_info();
  if (d == NULL) {
    printf("dev_get_info: no region here (%s), skipped\n", "cannot open /dev/shm/kelo-devinfo");
    return;
  }
  CHECK(strcmp(d + DEV_INFO_MODEL, "tarsa.camera.v4") == 0);
  CHECK(memchr(d + DEV_INFO_FW_VERSION, '\0', 64) != NULL && d[DEV_INFO_FW_VERSION] != '\0');
  CHECK(memchr(d + DEV_INFO_IFNAME, '\0', 19) != NULL);
  CHECK(dev_get_info() == d); /* one mapping per process */
}

int main(void) {
  test_log();
  test_rand();
  test_devinfo();
  if (failures) fprintf(stderr, "%d checks failed\n", failures);
  return failures ? 1 : 0;
}
