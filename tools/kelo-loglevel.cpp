// kelo-loglevel: shows or sets the device-wide system-log threshold that every
// service reads at each system-log message.
//   kelo-loglevel            prints the threshold in force
//   kelo-loglevel LEVEL      sets it (0..7 or emerg, alert, crit, err, warning,
//                            notice, info, debug); -1 silences the system log
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "kelo/log.h"
#include "log/log_internal.h"

namespace {

constexpr const char *kNames[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};

int usage() {
  fprintf(stderr, "usage: kelo-loglevel [LEVEL]\n  LEVEL: -1..7 or one of");
  for (const char *n : kNames) fprintf(stderr, " %s", n);
  fprintf(stderr, "\n");
  return 2;
}

bool parse(const char *text, int *level) {
  for (int i = 0; i < 8; ++i)
    if (strcasecmp(text, kNames[i]) == 0) {
      *level = i;
      return true;
    }
  char *end = nullptr;
  errno = 0;
  long v = strtol(text, &end, 10);
  if (end == text || *end != '\0' || errno != 0 || v < -1 || v > 7) return false;
  *level = static_cast<int>(v);
  return true;
}

const char *name_of(int level) { return level >= 0 && level <= 7 ? kNames[level] : "nothing"; }

int show() {
  int level = kelo::log::syslog_threshold();
  if (kelo::log::control() == nullptr) {
    // No region: services use the built-in 6 until one can create it.
    printf("%d (info; the log-control region cannot be opened)\n", level);
    return 0;
  }
  printf("%d (%s and more severe go to the system log)\n", level, name_of(level));
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 1) return show();
  int level;
  if (argc != 2 || !parse(argv[1], &level)) return usage();
  // Keep this tool's own logging away from the system log.
  if (getenv("KELO_LOG_FILE") == nullptr) setenv("KELO_LOG_FILE", "-", 1);
  if (log_set_syslog_level(level) != 0) {
    fprintf(stderr, "kelo-loglevel: cannot set the threshold in the log-control region: %s\n",
            strerror(errno));
    return 1;
  }
  printf("%d (%s and more severe go to the system log)\n", level, name_of(level));
  return 0;
}
