/* What a service sees of the camera's world: the device record, a time stamp
 * drawn with the camera's font path, /dev/shm, and a loopback port. Built as
 * a program that kelo-run runs (against the shared library, as a service
 * is) and, with KELO_PROBE_NO_MAIN, into the test that gives the reference. */
#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <kelo/devinfo.h>
#include <kelo/md5.h>
#include <kelo/osd.h>

/* "record HEX" with the record's 228 bytes, then "osd WxH MD5" of the NV12
 * planes of a time stamp (or "osd none" when it cannot be drawn). */
void kelo_probe_report(void) {
  const unsigned char *rec = (const unsigned char *)dev_get_info();
  printf("record ");
  for (int i = 0; rec != NULL && i < DEV_INFO_SIZE; ++i) printf("%02x", rec[i]);
  int w = 0, h = 0;
  unsigned char *yuv = Ascii2yuv("2018:01:05 15:24:59", &w, &h, 16, 1);
  if (yuv == NULL) {
    printf("\nosd none\n");
    return;
  }
  MD5_CTX ctx;
  unsigned char digest[16];
  MD5Init(&ctx);
  MD5Update(&ctx, yuv, (unsigned int)(w * h * 3 / 2));
  MD5Final(&ctx, digest);
  printf("\nosd %dx%d ", w, h);
  for (int i = 0; i < 16; ++i) printf("%02x", digest[i]);
  printf("\n");
  free(yuv);
}

#ifndef KELO_PROBE_NO_MAIN
/* kelo_run_probe PORT: also "shm NAME..." (what /dev/shm held at start) and
 * "port PORT open|refused|ERROR" for a connection to 127.0.0.1:PORT. */
int main(int argc, char **argv) {
  printf("shm");
  DIR *d = opendir("/dev/shm");
  for (struct dirent *e; d != NULL && (e = readdir(d)) != NULL;)
    if (e->d_name[0] != '.') printf(" %s", e->d_name);
  if (d != NULL) closedir(d);
  printf("\n");
  kelo_probe_report();
  if (argc > 1) {
    struct sockaddr_in a;
    memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_port = htons((unsigned short)atoi(argv[1]));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int rc = connect(fd, (struct sockaddr *)&a, sizeof a);
    printf("port %s %s\n", argv[1], rc == 0 ? "open" : errno == ECONNREFUSED ? "refused" : strerror(errno));
    close(fd);
  }
  return 0;
}
#endif
