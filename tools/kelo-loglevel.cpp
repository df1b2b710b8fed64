// kelo-loglevel: shows or sets the device-wide system-log threshold that every
// service reads at each system-log message.
//   kelo-loglevel            prints the threshold in force
//   kelo-loglevel LEVEL      sets it: -1..7, or a level name as KELO_LOG_LEVEL
//                            takes it (emerg ... debug, warning, error, panic);
//                            -1 silences the system log
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kelo/log.h"
#include "log/log_internal.h"

namespace {

int usage() {
  fprintf(stderr, "usage: kelo-loglevel [LEVEL]\n  LEVEL: -1..7 or one of");
  for (int i = 0; i <= 7; ++i) fprintf(stderr, " %s", kelo::log::level_name(i));
  fprintf(stderr, " (any case; also warning, error, panic)\n");
  return 2;
}

// The level as services read KELO_LOG_LEVEL (the logging core's parser), kept
// to the range a threshold means something in: "none" (16) would let every
// message through, the opposite of what the word suggests.
bool parse(const char *text, int *level) {
  int v = kelo::log::level_parse(text);
  if (v == -1) {  // the parser's "not a level" too: only a written -1 counts
    char *end = nullptr;
    if (strtol(text, &end, 0) != -1 || end == text) return false;
  }
  if (v < -1 || v > 7) return false;
  *level = v;
  return true;
}

const char *name_of(int level) { return level >= 0 && level <= 7 ? kelo::log::level_name(level) : "nothing"; }

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
