/* Every public header from plain C11, linked to the shared object, with a call
 * through each family. One process, no fork (it runs under qemu), and no fixed
 * system path touched: nothing is logged and the device record is not made. */
#include <kelo/kelo.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int failures;

#define CHECK(c) \
  ((c) ? (void)0 : (void)(fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #c), failures++))

static int released, delivered;

static void on_release(log_handler *h) { released += h != NULL; }

static int on_cmd(int ctx, const unsigned char *payload, uint32_t cmd) {
  return delivered = ctx == 3 && cmd == 9 && memcmp(payload, "hi", 2) == 0;
}

/* The state-hook helpers against a plain array of the linked nodes, over a
 * long pseudo-random run of adds and removes (repeated ones included): the
 * list read forward is the array, the head's prev is the tail, the tail's
 * next is NULL, and an unlinked node has both links NULL. */
static int hook_list_matches(otrpc_state_hook *const *model, int n, const otrpc_state_hook *nodes,
                             int count) {
  const otrpc_state_hook *h = otrpc_on_state_changed;
  int i;
  for (i = 0; i < n; i++, h = h->next)
    if (h != model[i] || h->prev != (i == 0 ? model[n - 1] : model[i - 1])) return 0;
  if (h != NULL) return 0;
  for (i = 0; i < count; i++) {
    int linked = 0, j;
    for (j = 0; j < n; j++) linked |= model[j] == &nodes[i];
    if (!linked && (nodes[i].prev != NULL || nodes[i].next != NULL)) return 0;
  }
  return 1;
}

static void check_state_hook_helpers(void) {
  otrpc_state_hook nodes[4] = {{NULL, NULL, NULL, NULL}};
  otrpc_state_hook *model[4];
  int n = 0, step, ok = 1;
  unsigned seed = 12345;
  for (step = 0; step < 4000 && ok; step++) {
    int k, i, at = -1;
    seed = seed * 1103515245u + 12345u;
    k = (int)(seed >> 16) % 4;
    for (i = 0; i < n; i++)
      if (model[i] == &nodes[k]) at = i;
    if ((seed >> 27) & 1) {
      otrpc_state_hook_add(&nodes[k]);
      if (at < 0) model[n++] = &nodes[k];
    } else {
      otrpc_state_hook_remove(&nodes[k]);
      if (at >= 0) {
        for (i = at; i + 1 < n; i++) model[i] = model[i + 1];
        n--;
      }
    }
    ok = hook_list_matches(model, n, nodes, 4);
  }
  CHECK(ok && step == 4000);
  otrpc_state_hook_add(NULL);
  otrpc_state_hook_remove(NULL);
  for (n = 0; n < 4; n++) otrpc_state_hook_remove(&nodes[n]);
  CHECK(otrpc_on_state_changed == NULL);
}

int main(void) {
  check_state_hook_helpers();

  int32_t verbose = 0;
  opt_record table[] = {{"verbose", 'v', OPT_NOARG, &verbose, opt_inc_int, "More.", 0},
                        {NULL, 0, 0, NULL, NULL, NULL, 0}};
  char a0[] = "c", a1[] = "-vv", a2[] = "--verbose";
  char *argv[] = {a0, a1, a2, NULL};
  CHECK(opt_parse(3, argv, table) == 0 && verbose == 3);
  char *text = NULL; /* without a value the stock callbacks leave the destination alone */
  opt_store_int(NULL, NULL, &verbose);
  opt_store_string(NULL, NULL, &text);
  CHECK(verbose == 3 && text == NULL);

  log_handler h = {NULL, on_release, NULL, NULL};
  log_set_handler(1 << 3 | 1 << 5, &h);
  log_set_handler(0xff, NULL);
  CHECK(released == 2 && log_file_create(NULL) == NULL);

  MD5_CTX ctx;
  unsigned char digest[16], hex[33];
  MD5Init(&ctx);
  MD5Update(&ctx, (const unsigned char *)"abc", 3);
  MD5Final(&ctx, digest);
  CHECK(hex_stringify(digest, 16, (char *)hex, sizeof hex) == 32 &&
        strcmp((char *)hex, "900150983cd24fb0d6963f7d28e17f72") == 0);
  void *p = kelo_malloc(100, 64);
  CHECK(p != NULL && ((size_t)p & 63) == 0 && kelo_round(100, 64) == 128);
  kelo_free(p);
  CHECK(rand_range(10, 20) < 20 && time_monotonic() >= 0 && wait_sock_timeout(-1, 0, 1, 0) == -EBADF);
  CHECK(file_read_string((char *)hex, 8, "/proc/self/stat") == 7);

  uint32_t n = 0;
  unsigned char *packet = construct_packet_cmd(9, "hi", 2, &n);
  CHECK(packet != NULL && n == 22 && av_cmd_parse(3, packet, (int)n, on_cmd) == 22 && delivered);
  free(packet);
  const unsigned char black[8] = {0};
  unsigned char *yuv = Bitmap1555ToYUV(black, 2, 2, 1);
  CHECK(yuv != NULL && yuv[0] == 16 && yuv[4] == 128);
  free(yuv);

  const otrpc_dispatch_entry none[] = {{NULL, NULL, NULL}};
  CHECK(otrpc_dispatch(NULL, none) == -ENOMEM && otrpc_send_stat_int(NULL, 1) == -1);
  return failures ? 1 : 0;
}
