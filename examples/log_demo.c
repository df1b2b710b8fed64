/* A small service that logs at several levels. Where the lines go is set by
 * the environment:
 *   KELO_LOG_FILE   unset or "": system log; "-": standard error; else a file
 *   KELO_LOG_LEVEL  highest level written (name or number), default debug */
#include <kelo/log.h>

#include <unistd.h>

int main(void) {
  log_info("log_demo starting, pid %d", (int)getpid());
  log_debug("opening %s", "/dev/video0");
  log_pinfo("[cam0] ", "frame rate %d fps, %dx%d", 25, 1920, 1080);
  log_notice("motion detection %s", "armed");
  log_warning("frame %d late by %d ms", 1204, 38);
  log_perr("[cam0] ", "encoder queue full, dropping %d frames\n", 3);
  log_crit("storage %s is read-only", "/mnt/sdcard");
  log_info("log_demo done");
  return 0;
}
