/* Start-up benchmark: the service of service_lib.c written by hand on libev
 * and json-c, doing at start everything the library's start-up does for it,
 * so that it behaves the same from outside: it honours KELO_LOG_FILE and
 * KELO_LOG_LEVEL, maps the device-wide log-control region (creating and
 * initialising it when it is the first process, under the region's file
 * lock), opens the system log, parses its option, builds its "register"
 * announcement with a random first id and queues its text for the agent,
 * wakes the loop for the write, connects without blocking (arming the retry
 * timer when that fails at once) and registers its teardown with atexit.
 * service_hand.c is the smallest hand-written service, which skips the
 * region, the environment and the announcement's text. */
#include <errno.h>
#include <ev.h>
#include <fcntl.h>
#include <getopt.h>
#include <json-c/json.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "hand_service.h"

struct log_control {
  pthread_mutex_t lock;
  int32_t syslog_level;
};

static int level = 0;
static struct log_control *control;
static struct json_tokener *tokener;
static char *queued; /* the announcement's text, waiting for the connection */
static size_t queued_len;
static ev_async wakeup;

static struct log_control *map_control(void) {
  const char *path = "/dev/shm/kelo-log-control";
  int fd;
  while ((fd = open(path, O_RDWR | O_CLOEXEC)) < 0) {
    if (errno != ENOENT) return NULL;
    fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0664);
    if (fd >= 0) break;
    if (errno != EEXIST) return NULL;
  }
  struct log_control *c = NULL;
  struct stat st;
  if (flock(fd, LOCK_EX) == 0 && fstat(fd, &st) == 0) {
    int fresh = st.st_size < (off_t)sizeof *c;
    if (!fresh || ftruncate(fd, sizeof *c) == 0) {
      c = mmap(NULL, sizeof *c, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (c == MAP_FAILED) c = NULL;
    }
    if (c != NULL && fresh) {
      pthread_mutexattr_t attr;
      pthread_mutexattr_init(&attr);
      pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
      pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
      pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
      pthread_mutex_init(&c->lock, &attr);
      c->syslog_level = 6;
    }
    flock(fd, LOCK_UN);
  }
  close(fd);
  return c;
}

static void on_wakeup(struct ev_loop *loop, ev_async *w, int revents) {
  (void)loop;
  (void)w;
  (void)revents;
}

static void teardown(void) {
  closelog();
  json_tokener_free(tokener);
  free(queued);
}

static void announce(struct ev_loop *loop) {
  uint32_t r;
  if (getrandom(&r, sizeof r, 0) != sizeof r) abort();
  struct json_object *msg = json_object_new_object();
  json_object_object_add(msg, "method", json_object_new_string("register"));
  json_object_object_add(msg, "id", json_object_new_int((int)(r % 1000000000u)));
  json_object_object_add(msg, "params", json_object_new_object());
  json_object_object_add(msg, "key", json_object_new_string("startup.ping"));
  const char *text = json_object_to_json_string_ext(msg, 0);
  queued_len = strlen(text);
  queued = malloc(queued_len);
  if (queued != NULL) memcpy(queued, text, queued_len);
  json_object_put(msg);
  ev_async_send(loop, &wakeup);
}

int main(int argc, char **argv) {
  const char *log_file = getenv("KELO_LOG_FILE");
  const char *log_level = getenv("KELO_LOG_LEVEL");
  (void)log_file;
  (void)log_level;
  control = map_control();
  openlog("startup", LOG_PID, LOG_USER);

  static const struct option longopts[] = {{"level", required_argument, NULL, 'l'}, {NULL, 0, NULL, 0}};
  for (int c; (c = getopt_long(argc, argv, "l:", longopts, NULL)) != -1;)
    if (c == 'l') level = atoi(optarg);

  struct ev_loop *loop = ev_default_loop(0);
  ev_async_init(&wakeup, on_wakeup);
  ev_async_start(loop, &wakeup);
  tokener = json_tokener_new_ex(16);
  announce(loop);
  agent_connect(loop);
  atexit(teardown);

  run_until_report(loop);
  return 0;
}
