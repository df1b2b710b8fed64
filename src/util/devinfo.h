// The device-information record as laid out in the shared "devinfo" region.
#pragma once

#include <cstddef>
#include <string_view>

#include "kelo/devinfo.h"

namespace kelo::devinfo {

struct Record {
  char model[64];
  char fw_version[64];
  char extra_version[64];
  char extra_tag[17];
  char ifname[19];
};
static_assert(sizeof(Record) == DEV_INFO_SIZE, "devinfo record is 228 bytes");
static_assert(offsetof(Record, fw_version) == DEV_INFO_FW_VERSION);
static_assert(offsetof(Record, extra_version) == DEV_INFO_EXTRA_VERSION);
static_assert(offsetof(Record, extra_tag) == DEV_INFO_EXTRA_TAG);
static_assert(offsetof(Record, ifname) == DEV_INFO_IFNAME);

// The region's initialiser; returns 0. Without /proc/net/wireless the
// interface name stays empty and get() logs why and aborts.
int fill(void *record);

// The record, typed; NULL when the region cannot be opened.
const Record *get();

// The text of field f of rec, up to its NUL or the end of the record.
std::string_view field(const Record *rec, const char *f);

}  // namespace kelo::devinfo
