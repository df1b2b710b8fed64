// Percent-decoding of one URL component and lookup of a query-string field.
#include <ctype.h>
#include <errno.h>
#include <string.h>

#include "kelo/encoding.h"

namespace {

// Value of a hex digit already checked with isxdigit (either case).
unsigned digit_value(unsigned char c) { return c <= '9' ? c - unsigned{'0'} : (c & 15u) + 9u; }

}  // namespace

extern "C" {

KELO_EXPORT int url_decode_comp(const char *in, size_t inlen, char *out, size_t outsize) {
  if (outsize < 2) return 0;
  int state = 0;  // 0 plain, 1 after '%', 2 after '%' and one digit
  unsigned first = 0;
  size_t n = 0;
  for (size_t i = 0; i < inlen && in[i] != '\0'; ++i) {
    auto c = static_cast<unsigned char>(in[i]);
    if (state == 0) {
      if (c == '%') {
        state = 1;
        continue;
      }
      out[n++] = static_cast<char>(c);
    } else {
      if (!isxdigit(c)) {
        errno = EINVAL;
        return -1;
      }
      if (state == 1) {
        first = digit_value(c);
        state = 2;
        continue;
      }
      out[n++] = static_cast<char>((first << 4) | digit_value(c));
      state = 0;
    }
    if (outsize - n < 2) break;  // cut silently, room kept for the NUL
  }
  if (state != 0) {
    errno = EINVAL;
    return -1;
  }
  out[n] = '\0';
  return static_cast<int>(n + 1);
}

KELO_EXPORT int url_qs_field(const char *qs, size_t qslen, const char *name, char *out, size_t outsize) {
  const char *end = qs + qslen;
  size_t m = strlen(name);
  for (const char *p = qs; p < end;) {
    const char *hit = static_cast<const char *>(memmem(p, static_cast<size_t>(end - p), name, m));
    if (hit == nullptr) break;
    // hit[m] may be the byte just past qslen (callers pass NUL-terminated text).
    if ((hit == qs || hit[-1] == '&') && hit[m] == '=') {
      const char *value = hit + m + 1;
      // A '=' just past the end gives an empty value, never a negative length.
      if (value > end) value = end;
      const char *amp = static_cast<const char *>(memchr(value, '&', static_cast<size_t>(end - value)));
      return url_decode_comp(value, static_cast<size_t>((amp ? amp : end) - value), out, outsize);
    }
    p = hit + 1;
  }
  errno = ENOENT;
  return -1;
}

}  // extern "C"
