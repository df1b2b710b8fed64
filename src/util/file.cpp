// Small-file helpers and directory walks.
// 64-bit offsets and inode numbers here only (nothing with off_t is exported):
// on 32-bit ARM, readdir otherwise gives up with EOVERFLOW on file systems
// with 64-bit directory cookies, and stat on files of 2 GiB or more.
#define _FILE_OFFSET_BITS 64
#include "kelo/file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/free_ptr.h"
#include "common/unique_fd.h"
#include "log/log_internal.h"

namespace kelo::file {
namespace {

constexpr size_t kLineBuf = 80;

// Takes the lock the flags name, retrying on EINTR. 0, or -1.
int lock_for(int fd, int flags) {
  int bits = flags & (FILE_LOCK_EX | FILE_LOCK_SH);
  if (bits == 0) return 0;
  int op = bits == FILE_LOCK_SH ? LOCK_SH : LOCK_EX;
  int r;
  do r = flock(fd, op);
  while (r < 0 && errno == EINTR);
  return r;
}

// Sums an open directory (taking ownership of dirfd): KiB of its regular
// files, rounded up per file, and of its subdirectories.
uint32_t usage_walk(int dirfd) {
  DIR *dir = fdopendir(dirfd);
  if (dir == nullptr) {
    close(dirfd);
    return 0;
  }
  uint32_t total = 0;
  while (struct dirent *e = readdir(dir)) {
    const char *name = e->d_name;
    if (e->d_type == DT_DIR) {
      if (name[0] == '\0' || strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
      int sub = openat(dirfd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (sub >= 0) total += usage_walk(sub);
    } else if (e->d_type == DT_REG) {
      struct stat st;
      if (fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
        int64_t kib = (static_cast<int64_t>(st.st_size) + 1023) / 1024;
        total += static_cast<uint32_t>(kib);
      }
    }
  }
  closedir(dir);  // also closes dirfd
  return total;
}

// mkdir -p on a writable path; the path is restored before returning.
int make_path(char *path, mode_t mode) {
  if (mkdir(path, mode) == 0 || errno == EEXIST) return 0;
  if (errno != ENOENT) return -1;
  char *slash = strrchr(path, '/');
  if (slash == nullptr) return -1;
  *slash = '\0';
  int r = make_path(path, mode);
  *slash = '/';
  if (r != 0) return -1;
  return mkdir(path, mode);
}

}  // namespace
}  // namespace kelo::file

using namespace kelo::file;

extern "C" {

KELO_EXPORT ssize_t file_read_string(char *buf, size_t size, const char *path) {
  // size 0 leaves no room even for the NUL; refuse rather than overrun buf.
  if (buf == nullptr || size == 0) {
    errno = EINVAL;
    return -1;
  }
  kelo::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) {
    kelo::log::lib_log(LOG_ERR, "%s: open error(%s): %m\n", "file_read_string", path);
    return -1;
  }
  ssize_t n = read(fd.get(), buf, size - 1);
  if (n < 0) {
    kelo::log::lib_log(LOG_ERR, "%s: read error(%s): %m\n", "file_read_string", path);
    return -1;
  }
  buf[n] = '\0';
  return n;
}

KELO_EXPORT ssize_t file_write_string(const char *str, const char *path) {
  // The text is formatted into 80 bytes and the length snprintf reports is
  // written, cut or not (older callers rely on that count). A longer report
  // would read past the 80 bytes, so the line is built at the start of a
  // zeroed buffer of the reported length: the bytes past the 80 are zeros.
  char small[kLineBuf] = {};
  int reported = snprintf(small, sizeof small, "%s\n", str);
  if (reported < 0) return -1;
  size_t n = static_cast<size_t>(reported);
  kelo::FreePtr<char> big;
  char *line = small;
  if (n > sizeof small) {
    big.reset(static_cast<char *>(calloc(1, n)));
    if (big == nullptr) return -1;
    line = big.get();
    memcpy(line, small, sizeof small);
  }
  kelo::UniqueFd fd(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  if (!fd.valid()) {
    kelo::log::lib_log(LOG_ERR, "%s: open error(%s): %m\n", "file_write_string", path);
    return -1;
  }
  return write(fd.get(), line, n);
}

KELO_EXPORT ssize_t file_get_contents(const char *path, void *buf, size_t len, int flags) {
  kelo::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return -1;
  if (lock_for(fd.get(), flags) < 0) return -1;
  return read(fd.get(), buf, len);
}

KELO_EXPORT ssize_t file_put_contents(const char *path, const void *buf, size_t len, int flags) {
  int oflags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  if (flags & FILE_APPEND) oflags |= O_APPEND;
  if (flags & FILE_EXCL) oflags |= O_EXCL;
  if (flags & FILE_SYNC) oflags |= O_SYNC;
  if (flags & FILE_NO_TRUNC) oflags &= ~O_TRUNC;
  kelo::UniqueFd fd(open(path, oflags, 0777));
  if (!fd.valid()) return -1;
  if (lock_for(fd.get(), flags) < 0) return -1;
  ssize_t last = 0;
  size_t remaining = len;
  // After a short write the whole buffer goes out again from its start;
  // callers of this helper rely on that, do not turn it into a resume.
  while (remaining != 0) {
    last = write(fd.get(), buf, len);
    if (last == 0) break;
    if (last < 0) {
      if (errno == EINTR) continue;
      break;
    }
    size_t done = static_cast<size_t>(last);
    // The rewrite from the start can report more than remains; that ends the
    // loop instead of wrapping the count and writing forever.
    remaining = done >= remaining ? 0 : remaining - done;
  }
  return last;
}

KELO_EXPORT uint32_t dir_usage(const char *path) {
  struct stat st;
  if (stat(path, &st) != 0) return 0;
  if (!S_ISDIR(st.st_mode)) return static_cast<uint32_t>(st.st_size);  // bytes
  int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return 0;
  return usage_walk(fd);  // KiB
}

KELO_EXPORT int dir_make_parent(char *path, mode_t mode) {
  const char *slash = strrchr(path, '/');
  if (slash == nullptr) {
    errno = EINVAL;
    return -1;
  }
  size_t n = static_cast<size_t>(slash - path);
  char scratch[PATH_MAX];
  if (n >= sizeof scratch) {
    errno = ENAMETOOLONG;
    return -1;
  }
  memcpy(scratch, path, n);
  scratch[n] = '\0';
  return make_path(scratch, mode);
}

}  // extern "C"
