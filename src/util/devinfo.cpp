// Device identity, worked out once per boot into the shared "devinfo" region.
#include "util/devinfo.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "common/free_ptr.h"
#include "common/mutex_lock.h"
#include "common/shm_region.h"
#include "common/sys_paths.h"
#include "common/unique_fd.h"
#include "kelo/log.h"

namespace kelo::devinfo {
namespace {

constexpr char kVersionKey[] = "HOLVEN_VERSION=";
constexpr size_t kVersionKeyLen = sizeof kVersionKey - 1;

// Published (release) once mapped; the first callers of several threads
// queue on g_open_lock so that one mapping is made. NULL again on failure,
// so the next call retries.
constinit std::atomic<const Record *> g_record{nullptr};
constinit Mutex g_open_lock;
// errno of a failed open of the wireless list by fill(), read back by get()
// on the same thread (fill runs inside shm_region_open, as its initialiser).
constinit thread_local int t_wireless_errno = 0;

void read_fw_version(Record *rec) {
  UniqueFd fd(open(sys::paths().os_release, O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return;
  struct stat st;
  if (fstat(fd.get(), &st) < 0 || st.st_size <= 0) return;
  size_t size = static_cast<size_t>(st.st_size);
  FreePtr<char> buf(static_cast<char *>(malloc(size)));
  if (!buf) return;
  ssize_t n = read(fd.get(), buf.get(), size);
  if (n <= 0) return;

  const char *data = buf.get();
  const char *end = data + n;
  const char *hit =
      static_cast<const char *>(memmem(data, static_cast<size_t>(n), kVersionKey, kVersionKeyLen));
  // Only the first occurrence is looked at, and only at a line start.
  if (hit == nullptr || (hit != data && hit[-1] != '\n')) return;
  const char *value = hit + kVersionKeyLen;
  const char *eol = static_cast<const char *>(memchr(value, '\n', static_cast<size_t>(end - value)));
  size_t len = static_cast<size_t>((eol ? eol : end) - value);
  // A long value runs on into the following fields (they are written again
  // afterwards) but never past the end of the record.
  // The copy addresses the record's bytes, not the 64-byte field array.
  char *dst = reinterpret_cast<char *>(rec) + offsetof(Record, fw_version);
  size_t room = sizeof(Record) - offsetof(Record, fw_version) - 1;
  if (len > room) len = room;
  memcpy(dst, value, len);
  dst[len] = '\0';
}

// Without the list (a PC, a container, a camera whose Wi-Fi driver is not
// loaded yet) the filling process aborts; the record stays as far as it was
// filled, with an empty interface name. The abort itself is left to get():
// the reason is logged first, and a service's log handler must not run under
// the open lock or the region's file lock (it may ask for the record itself).
void read_ifname(Record *rec) {
  FILE *f = fopen(sys::paths().proc_wireless, "re");
  if (f == nullptr) {
    t_wireless_errno = errno != 0 ? errno : ENOENT;
    return;
  }
  char *line = nullptr;
  size_t cap = 0;
  while (getline(&line, &cap, f) > 0) {
    if (strchr(line, ':') == nullptr) continue;  // the two header lines
    // The field holds 18 characters and its NUL; interface names are at most 15.
    if (sscanf(line, "%18s", rec->ifname) == 1) {
      char *colon = strrchr(rec->ifname, ':');
      if (colon != nullptr) *colon = '\0';
    }
    break;
  }
  free(line);
  fclose(f);
}

}  // namespace

int fill(void *record) {
  auto *rec = static_cast<Record *>(record);
  strcpy(rec->model, "tarsa.camera.v4");
  strcpy(rec->fw_version, "Unknown");
  read_fw_version(rec);
  snprintf(rec->extra_version, sizeof rec->extra_version, "%d.%d.%d", 3, 18, 30);
  strcpy(rec->extra_tag, "FIXME_kelo_util");
  read_ifname(rec);
  return 0;
}

namespace {

[[noreturn]] void abort_without_wireless_list(int err) {
  char text[128];
  log_crit("kelo_util: devinfo: cannot open %s (%s): no wireless interface for the device record, aborting.",
           sys::paths().proc_wireless, strerror_r(err, text, sizeof text));
  abort();
}

}  // namespace

const Record *get() {
  const Record *rec = g_record.load(std::memory_order_acquire);
  if (rec != nullptr) return rec;
  int wireless_errno = 0;
  {
    MutexLock lock(&g_open_lock);
    rec = g_record.load(std::memory_order_relaxed);
    if (rec == nullptr) {
      t_wireless_errno = 0;
      rec = static_cast<const Record *>(shm_region_open("devinfo", sizeof(Record), fill));
      wireless_errno = t_wireless_errno;
      if (wireless_errno == 0) g_record.store(rec, std::memory_order_release);
    }
  }
  if (wireless_errno != 0) abort_without_wireless_list(wireless_errno);
  return rec;
}

std::string_view field(const Record *rec, const char *f) {
  // A long firmware value runs on into the following fields by design, so a
  // field's text may end anywhere in the record; it never reads past it,
  // whatever another process left in the shared bytes.
  const char *end = reinterpret_cast<const char *>(rec) + sizeof(Record);
  return {f, strnlen(f, static_cast<size_t>(end - f))};
}

}  // namespace kelo::devinfo

extern "C" KELO_EXPORT const char *dev_get_info(void) {
  return reinterpret_cast<const char *>(kelo::devinfo::get());
}
