// What one call of an AV stream parser may answer for buf[0, len), with head
// the smallest packet (20 for commands, 24 for acknowledgements): 0 below
// head; len - 3 when no magic starts before len - 4; else, with the first
// magic at i, i (incomplete) or i + 4 (damaged or wrong trailer) without a
// delivery, and i + size with one, the trailer word then at i + size - 4 and
// the payload at `payload_at` behind the magic (NULL for an empty
// acknowledgement).
#pragma once

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

inline void av_check(const unsigned char *buf, int len, int head, int n, bool delivered,
                     const unsigned char *payload, int payload_at) {
  int i = 0;
  while (i < len - 4 && memcmp(buf + i, "KELO", 4) != 0) ++i;
  bool ok;
  if (len < head)
    ok = n == 0 && !delivered;
  else if (i >= len - 4)
    ok = n == len - 3 && !delivered;
  else if (!delivered)
    ok = n == i || n == i + 4;
  else {
    uint32_t size, trailer;
    memcpy(&size, buf + i + 4, 4);
    ok = n == i + static_cast<int>(size);
    if (ok) memcpy(&trailer, buf + n - 4, 4);
    ok = ok && trailer == 0xA5A5 &&
         payload == (static_cast<int>(size) == head && payload_at == 20 ? nullptr : buf + i + payload_at);
  }
  if (!ok) abort();
}
