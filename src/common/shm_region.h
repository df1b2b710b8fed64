// Named shared-memory regions: small fixed-size records in files under
// /dev/shm, created and initialised once, mapped by every process.
#pragma once

#include <pthread.h>
#include <stddef.h>

namespace kelo {

// Initialiser of a fresh region: negative for failure.
using ShmRegionInit = int (*)(void *record);

// Opens (or creates and initialises) the region "<prefix><name>" and maps
// size bytes of it shared. Read-only for a process that may only read the
// file (*writable, when given, tells which). NULL on any failure, and for a
// path that is not a regular file. The mapping is never undone.
void *shm_region_open(const char *name, size_t size, ShmRegionInit init, bool *writable = nullptr);

// The in-region mutex: error-checking, process-shared, robust.
int shm_mutex_init(pthread_mutex_t *mu);

}  // namespace kelo
