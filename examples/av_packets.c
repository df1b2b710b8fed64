/* av_packets: AV command packets between two services over a stream socket.
 *
 * A "client" sends two commands to a "service" (here the two ends of one
 * socket pair, in one process); the service parses them, answers each with an
 * acknowledgement, and the client parses those. Bytes arrive in whatever
 * pieces the socket gives, so both sides keep a receive buffer and call the
 * parser until it asks for more data (result 0). */
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <kelo/av.h>

enum { CMD_START_STREAM = 0x101, CMD_SNAPSHOT = 0x102 };

struct rx {
  unsigned char buf[512];
  int len;
};

/* The payload length is not passed: the packet's header sits just before the
 * payload, and its size counts the whole packet. */
static int on_command(int fd, const unsigned char *payload, uint32_t cmd) {
  struct av_cmd_header h;
  memcpy(&h, payload - AV_CMD_HEADER_SIZE, sizeof h); /* may be unaligned */
  int n = (int)(h.size - AV_CMD_MIN_SIZE);
  printf("service: command 0x%x, %d payload bytes \"%.*s\"\n", (unsigned)cmd, n, n, (const char *)payload);
  send_av_cmd_ack(fd, cmd, 0 /* done */, NULL, 0);
  return 0;
}

static int on_ack(uint32_t ack_value, const unsigned char *payload, uint32_t cmd) {
  (void)payload; /* NULL: these acknowledgements carry none */
  printf("client: acknowledgement of 0x%x: %u\n", (unsigned)cmd, (unsigned)ack_value);
  return 0;
}

/* Reads what is there (at most 7 bytes at a time, to show packets arriving
 * in pieces), then lets the parser take whole packets from the front. */
static void receive(int fd, struct rx *rx, int is_service) {
  ssize_t got;
  while (rx->len + 7 <= (int)sizeof rx->buf && (got = recv(fd, rx->buf + rx->len, 7, MSG_DONTWAIT)) > 0) {
    rx->len += (int)got;
    int used;
    while (rx->len > 0 && (used = is_service ? av_cmd_parse(fd, rx->buf, rx->len, on_command)
                                             : av_cmd_ack_parse(rx->buf, rx->len, on_ack)) > 0) {
      memmove(rx->buf, rx->buf + used, (size_t)(rx->len - used));
      rx->len -= used;
    }
  }
}

int main(void) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return 1;
  int client = sv[0], service = sv[1];
  struct rx at_client = {{0}, 0}, at_service = {{0}, 0};

  const char noise[] = "noise"; /* bytes before a magic are dropped */
  if (send(client, noise, sizeof noise - 1, 0) < 0) return 1;
  const char channel[] = "channel=1";
  if (send_av_cmd(client, CMD_START_STREAM, channel, (int)strlen(channel)) < 0) return 1;
  if (send_av_cmd(client, CMD_SNAPSHOT, NULL, 0) < 0) return 1;

  receive(service, &at_service, 1);
  receive(client, &at_client, 0);
  printf("left over: %d bytes at the service, %d at the client\n", at_service.len, at_client.len);
  close(client);
  close(service);
  return at_service.len == 0 && at_client.len == 0 ? 0 : 1;
}
