/* Small-file reads and writes, directory usage and parent-directory creation.
 * Writes go straight into the target (no temporary file and rename). */
#ifndef KELO_FILE_H
#define KELO_FILE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <kelo/export.h>

KELO_BEGIN_DECLS

/* Flags of file_get_contents / file_put_contents (unknown bits ignored).
 * Locks: (flags & 6) == 4 takes LOCK_SH, 2 or 6 take LOCK_EX. */
#define FILE_APPEND   0x01 /* put: O_APPEND */
#define FILE_LOCK_EX  0x02 /* exclusive flock before reading or writing */
#define FILE_LOCK_SH  0x04 /* shared flock */
#define FILE_EXCL     0x08 /* put: O_EXCL */
#define FILE_SYNC     0x10 /* put: O_SYNC */
#define FILE_NO_TRUNC 0x20 /* put: no O_TRUNC */

/* One read of at most size - 1 bytes, NUL-terminated. Returns the bytes
 * read, or -1 (logged) on a failed open or read; -1 with EINVAL for a NULL
 * buf or a size of 0. */
KELO_EXPORT ssize_t file_read_string(char *buf, size_t size, const char *path);
/* Writes str and a line feed (created 0644, NOT truncated: a shorter text
 * leaves the old tail of the file). Texts longer than 78 characters are cut
 * to 79 bytes without the line feed. Returns what write returned, or -1. */
KELO_EXPORT ssize_t file_write_string(const char *str, const char *path);
/* One read of at most len bytes (no NUL added), under the lock the flags
 * ask for. Returns what read returned, or -1. */
KELO_EXPORT ssize_t file_get_contents(const char *path, void *buf, size_t len, int flags);
/* Creates or truncates path (mode 0777 less umask; see the flags) and writes
 * len bytes. A short write is followed by a write of the whole buffer from
 * its start again (older callers expect this). Returns the last write's
 * result, 0 for len 0, or -1. */
KELO_EXPORT ssize_t file_put_contents(const char *path, const void *buf, size_t len, int flags);
/* Size of a file in bytes, or of a directory tree in KiB (regular files
 * only, each rounded up to whole KiB; links and unknown entry types are
 * skipped). 0 when path cannot be read. */
KELO_EXPORT uint32_t dir_usage(const char *path);
/* Creates every missing directory above the last component of path. 0, or
 * -1 (EINVAL when path has no '/', ENAMETOOLONG beyond PATH_MAX). path is
 * not changed. */
KELO_EXPORT int dir_make_parent(char *path, mode_t mode);

KELO_END_DECLS

#endif
