/* Socket helpers and readers of the wireless interface's state. The
 * interface is the one named in the device information (dev_get_info). */
#ifndef KELO_NET_H
#define KELO_NET_H

#include <stddef.h>

#include <kelo/export.h>

KELO_BEGIN_DECLS

/* Defined in <linux/wireless.h>; 32 bytes. */
struct iw_statistics;

/* Deprecated: prints "wait_sock_timeout is deprecated." to stderr on every
 * call. Waits up to timeout_s seconds for fd to become readable (want_read)
 * and/or writable (want_write), then reports its pending error: 0, -ETIMEDOUT
 * (-110, errno set), or the negated errno of select or of SO_ERROR. With
 * want_write it completes a non-blocking connect. -EBADF for a descriptor
 * that select cannot watch (negative or >= FD_SETSIZE). */
KELO_EXPORT int wait_sock_timeout(int fd, int timeout_s, int want_read, int want_write);
/* Deprecated: prints "general_send_one is deprecated." to stderr on every
 * call. Sends len bytes without blocking (MSG_DONTWAIT | MSG_NOSIGNAL),
 * chunk after chunk without waiting. Returns the LAST send's result (the
 * size of the last chunk, not the total), -1 after a failure, 0 for len <= 0;
 * fd <= 0 logs "sock not ready" and gives -1. */
KELO_EXPORT int general_send_one(int fd, const void *buf, int len);
/* Signal level column of the interface in /proc/net/wireless (dBm as the
 * kernel reports it); 0 when there is no reading. */
KELO_EXPORT int net_rssi(void);
/* SIOCGIWSTATS of the interface into stats. 0, or -1 with errno. */
KELO_EXPORT int net_iw_stat(struct iw_statistics *stats);
/* Copies min(outlen, 16) bytes of the interface's hardware-address record
 * (a struct sockaddr: 2-byte family in host order, then the MAC at bytes
 * 2..7) to out and returns the count, or -1 with errno. */
KELO_EXPORT int net_iw_hwaddr(void *out, size_t outlen);

KELO_END_DECLS

#endif
