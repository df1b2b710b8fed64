/* The packet and OSD headers compile as C11 and link against the shared object. */
#include <kelo/av.h>
#include <kelo/osd.h>
#include <stdlib.h>
#include <string.h>

static int delivered;

static int on_cmd(int ctx, const unsigned char *payload, uint32_t cmd) {
  delivered = ctx == 3 && cmd == 9 && memcmp(payload, "hi", 2) == 0;
  return 0;
}

int main(void) {
  uint32_t n = 0;
  unsigned char *p = construct_packet_cmd(9, "hi", 2, &n);
  if (p == NULL || n != 22 || av_cmd_parse(3, p, (int)n, on_cmd) != 22 || !delivered) return 1;
  free(p);
  const unsigned char white[8] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
  unsigned char *yuv = Bitmap1555ToYUV(white, 2, 2, true);
  if (yuv == NULL || yuv[0] != 229 || yuv[4] != 128) return 2;
  free(yuv);
  return 0;
}
