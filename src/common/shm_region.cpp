// Opens or creates named shared-memory regions, serialising creation with flock.
#include "common/shm_region.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/errno_saver.h"
#include "common/sys_paths.h"
#include "common/unique_fd.h"

namespace kelo {
namespace {

// Region paths are formatted into 64 bytes; longer ones are cut at 63.
constexpr size_t kPathSize = 64;

// O_NOFOLLOW refuses a symbolic link planted at a region path; O_NONBLOCK
// keeps a FIFO planted there from blocking the open (it is refused below).
constexpr int kOpenFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

int lock_exclusive(int fd) {
  int rc;
  do {
    rc = flock(fd, LOCK_EX);
  } while (rc < 0 && errno == EINTR);
  return rc;
}

void unlock(int fd) {
  ErrnoSaver keep;
  flock(fd, LOCK_UN);
}

// prefix then name into path, cut at kPathSize - 1 bytes as "%s%s" with
// snprintf would; joined by hand because every service opens a region at
// start, and the formatter costs more than the rest of the open.
void join_path(char (&path)[kPathSize], const char *prefix, const char *name) {
  size_t n = 0;
  for (const char *c = prefix; *c != '\0' && n < kPathSize - 1; ++c) path[n++] = *c;
  for (const char *c = name; *c != '\0' && n < kPathSize - 1; ++c) path[n++] = *c;
  path[n] = '\0';
}

}  // namespace

void *shm_region_open(const char *name, size_t size, ShmRegionInit init, bool *writable) {
  char path[kPathSize];
  join_path(path, sys::paths().shm_prefix, name);

  UniqueFd fd;
  bool writer = true;
  for (;;) {
    fd.reset(open(path, O_RDWR | kOpenFlags));
    if (fd.valid()) break;
    if (errno == ENOENT) {
      fd.reset(open(path, O_RDWR | O_CREAT | O_EXCL | kOpenFlags, 0664));
      if (fd.valid()) break;
      if (errno == EEXIST) continue;  // another process created it meanwhile
      return nullptr;
    }
    if (errno != EACCES) return nullptr;
    fd.reset(open(path, O_RDONLY | kOpenFlags));
    if (!fd.valid()) return nullptr;
    writer = false;
    init = nullptr;  // a reader never initialises
    break;
  }

  // Only a regular file is a region: a FIFO, device or directory planted at
  // the path would block or misbehave under the lock every opener waits for.
  struct stat st;
  if (fstat(fd.get(), &st) < 0) return nullptr;
  if (!S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return nullptr;
  }
  // O_NONBLOCK stays set: it changes nothing for a regular file, and flock
  // blocks (or not) by its own flag.

  if (lock_exclusive(fd.get()) < 0) return nullptr;

  if (fstat(fd.get(), &st) < 0) {
    unlock(fd.get());
    return nullptr;
  }

  bool fresh = false;
  int prot = writer ? PROT_READ | PROT_WRITE : PROT_READ;
  if (static_cast<long long>(st.st_size) < static_cast<long long>(size)) {
    if (!writer || ftruncate(fd.get(), static_cast<off_t>(size)) < 0) {
      unlock(fd.get());
      return nullptr;
    }
    fresh = true;
  }

  // Another process that truncates the file while it is mapped makes every
  // access here raise SIGBUS. No guard is cheap enough: the threshold word is
  // read at every system-log message without lock or syscall by design, and
  // catching the signal would need a process-wide SIGBUS handler, which a
  // library loaded into every service must not install.
  void *rec = mmap(nullptr, size, prot, MAP_SHARED, fd.get(), 0);
  if (rec == MAP_FAILED) {
    unlock(fd.get());
    return nullptr;
  }

  // A fresh region always has a writer here; a NULL init (a caller that
  // cannot be the creator) leaves the zeroed bytes as they are.
  if (fresh && init != nullptr && init(rec) < 0) {
    ErrnoSaver keep;
    munmap(rec, size);
    // Back to empty, so that the next opener initialises again.
    (void)!ftruncate(fd.get(), 0);  // best effort: the open already failed
    unlock(fd.get());
    return nullptr;
  }

  unlock(fd.get());
  if (writable != nullptr) *writable = writer;
  return rec;
}

int shm_mutex_init(pthread_mutex_t *mu) {
  // The attribute object is deliberately not destroyed; order as the other
  // processes sharing the region expect.
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  return pthread_mutex_init(mu, &attr);
}

}  // namespace kelo
