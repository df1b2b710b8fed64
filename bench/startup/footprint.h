/* Start-up benchmark services: what each reports at its first loop iteration.
 * Both services call this from their timer callback, so the figures are taken
 * at the same point: the loop has run once, nothing has happened yet. */
#ifndef KELO_BENCH_STARTUP_FOOTPRINT_H
#define KELO_BENCH_STARTUP_FOOTPRINT_H

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Value in kB of the line "name:" of a smaps_rollup text, -1 if absent. */
static long footprint_field(const char *text, const char *name) {
  const char *p = strstr(text, name);
  return p ? strtol(p + strlen(name), NULL, 10) : -1;
}

/* Prints "rss_kb=N private_dirty_kb=N" from /proc/self/smaps_rollup (read with
 * plain system calls, so the reading itself dirties nothing first). */
static void footprint_report(void) {
  static char text[4096];
  long rss = -1, dirty = -1;
  int fd = open("/proc/self/smaps_rollup", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    if (n > 0) {
      text[n] = '\0';
      rss = footprint_field(text, "\nRss:");
      dirty = footprint_field(text, "\nPrivate_Dirty:");
    }
  }
  printf("rss_kb=%ld private_dirty_kb=%ld\n", rss, dirty);
  fflush(stdout);
}

#endif
