// Copies a fuzzer input into an exactly sized heap buffer, with one NUL
// behind it for the functions that read the byte past the given length.
#pragma once

#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

struct FuzzText {
  char *p;
  size_t n;
  FuzzText(const uint8_t *data, size_t size, bool nul)
      : p(static_cast<char *>(malloc(alloc(size, nul)))), n(size) {
    memcpy(p, data, size);
    if (nul) p[size] = '\0';
  }
  ~FuzzText() { free(p); }
  // Exactly what is asked; one byte for an empty input (malloc(0) may give NULL).
  static size_t alloc(size_t size, bool nul) {
    size_t want = size + (nul ? 1 : 0);
    return want ? want : 1;
  }
  FuzzText(const FuzzText &) = delete;
  FuzzText &operator=(const FuzzText &) = delete;
};

// Drives a stream parser like a receiver: drop the returned count from the
// front and call again while data remains; the count must stay within what
// is left. The buffer is an exact-size heap copy, so a read past it is caught.
template <typename Parse>
void drive_stream(const uint8_t *data, size_t size, Parse parse) {
  if (size > INT_MAX) return;
  FuzzText buf(data, size, false);
  auto *bytes = reinterpret_cast<unsigned char *>(buf.p);
  int len = static_cast<int>(size), off = 0;
  while (off < len) {
    int n = parse(bytes + off, len - off);
    if (n < 0 || n > len - off) abort();
    if (n == 0) break;
    off += n;
  }
}
