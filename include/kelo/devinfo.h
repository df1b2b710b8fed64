/* Device information: model, firmware version and wireless interface, kept
 * once per boot in a shared region and mapped by every process. */
#ifndef KELO_DEVINFO_H
#define KELO_DEVINFO_H

#include <kelo/export.h>

KELO_BEGIN_DECLS

/* Byte offsets of the fields of the record returned by dev_get_info; each
 * field is a NUL-terminated string. */
#define DEV_INFO_MODEL         0   /* 64 bytes: "tarsa.camera.v4" */
#define DEV_INFO_FW_VERSION    64  /* 64 bytes: HOLVEN_VERSION of os-release, or "Unknown" */
#define DEV_INFO_EXTRA_VERSION 128 /* 64 bytes: "3.18.30" */
#define DEV_INFO_EXTRA_TAG     192 /* 17 bytes */
#define DEV_INFO_IFNAME        209 /* 19 bytes: first interface of /proc/net/wireless */
#define DEV_INFO_SIZE          228

/* The shared record (never freed), or NULL when the region cannot be opened.
 * The first process to open it after boot fills it. */
KELO_EXPORT const char *dev_get_info(void);

KELO_END_DECLS

#endif
