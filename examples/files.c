/* files: a service's small state files. Replacing a file's contents under a
 * lock, reading it back, making the directories above a path, and how much a
 * directory holds. Runs in a fresh directory under $TMPDIR (or /tmp) and
 * removes it afterwards. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <kelo/file.h>

int main(void) {
  const char *tmp = getenv("TMPDIR");
  char root[256], path[300];
  snprintf(root, sizeof root, "%s/kelo-files.XXXXXX", tmp != NULL && tmp[0] != '\0' ? tmp : "/tmp");
  if (mkdtemp(root) == NULL) return 1;

  /* dir_make_parent makes every directory above the last component. */
  snprintf(path, sizeof path, "%s/state/cam0/settings.json", root);
  if (dir_make_parent(path, 0755) != 0) return 1;

  /* file_put_contents truncates and writes; FILE_LOCK_EX keeps a reader that
   * takes FILE_LOCK_SH from seeing half of it. */
  const char settings[] = "{\"fps\":25,\"night\":true}";
  if (file_put_contents(path, settings, strlen(settings), FILE_LOCK_EX) != (ssize_t)strlen(settings))
    return 1;
  const char shorter[] = "{\"fps\":15}";
  if (file_put_contents(path, shorter, strlen(shorter), FILE_LOCK_EX) < 0) return 1;
  char buf[128];
  ssize_t n = file_get_contents(path, buf, sizeof buf - 1, FILE_LOCK_SH);
  if (n < 0) return 1;
  buf[n] = '\0';
  printf("settings: %s\n", buf);

  /* file_write_string does not truncate: it suits one-line values of a
   * fixed width (a pid, a counter), not texts that may get shorter. */
  char pid_path[300];
  snprintf(pid_path, sizeof pid_path, "%s/state/service.pid", root);
  if (file_write_string("4242", pid_path) < 0) return 1;
  if (file_read_string(buf, sizeof buf, pid_path) < 0) return 1;
  printf("pid file: %s", buf);

  /* A directory's usage is in KiB, each file rounded up to a whole KiB. */
  snprintf(path, sizeof path, "%s/state", root);
  printf("usage of state/: %u KiB\n", (unsigned)dir_usage(path));

  const char *made[] = {"state/cam0/settings.json", "state/service.pid", "state/cam0", "state", ""};
  for (size_t i = 0; i < sizeof made / sizeof made[0]; i++) {
    snprintf(path, sizeof path, "%s/%s", root, made[i]);
    if (remove(path) != 0) return 1;
  }
  return 0;
}
