// Copies a fuzzer input into an exactly sized heap buffer, with one NUL
// behind it for the functions that read the byte past the given length.
#pragma once

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

struct FuzzText {
  char *p;
  size_t n;
  FuzzText(const uint8_t *data, size_t size, bool nul) : p(static_cast<char *>(malloc(size + (nul ? 1 : 0)))), n(size) {
    memcpy(p, data, size);
    if (nul) p[size] = '\0';
  }
  ~FuzzText() { free(p); }
  FuzzText(const FuzzText &) = delete;
  FuzzText &operator=(const FuzzText &) = delete;
};
