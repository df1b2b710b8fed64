/* AV command packets: a small binary framing for commands and their
 * acknowledgements between services over stream sockets.
 *
 * Command:         "KELO" | size | cmd | reserved | payload (n) | A5 A5 00 00
 * Acknowledgement: "KELO" | size | cmd | reserved | ack_value | payload (n) | A5 A5 00 00
 *
 * Words are 32-bit little-endian (the device's order), size counts the whole
 * packet, the reserved word is written as 0 and ignored on receipt. Nothing
 * on the wire tells a command from an acknowledgement: the receiver uses the
 * parser of the kind it expects. Stateless; any thread. */
#ifndef KELO_AV_H
#define KELO_AV_H

#include <stdint.h>

#include <kelo/export.h>

KELO_BEGIN_DECLS

#define AV_PACKET_MAGIC    0x4f4c454bu /* "KELO" read as a little-endian word */
#define AV_PACKET_TRAILER  0x0000a5a5u
#define AV_CMD_HEADER_SIZE 16 /* payload offset of a command */
#define AV_ACK_HEADER_SIZE 20 /* payload offset of an acknowledgement */
#define AV_CMD_MIN_SIZE    20 /* command with an empty payload */
#define AV_ACK_MIN_SIZE    24 /* acknowledgement with an empty payload */

/* Header layouts, for readers that map a received packet. */
struct av_cmd_header {
  uint32_t magic;
  uint32_t size;
  uint32_t cmd;
  uint32_t reserved;
};

struct av_ack_header {
  uint32_t magic;
  uint32_t size;
  uint32_t cmd;
  uint32_t reserved;
  uint32_t ack_value;
};

/* Called once per delivered command: ctx as given to av_cmd_parse, payload at
 * offset 16 of the packet (at the trailer when the payload is empty). The
 * payload length is not passed: it is size - 20, known from cmd. The result
 * is ignored. */
typedef int (*av_cmd_handler)(int ctx, const unsigned char *payload, uint32_t cmd);
/* Called once per delivered acknowledgement: payload at offset 20, or NULL
 * for a 24-byte packet. The result is ignored. */
typedef int (*av_ack_handler)(uint32_t ack_value, const unsigned char *payload, uint32_t cmd);

/* A new packet of len + 20 bytes (freed with free), its size in *out_size.
 * data may be NULL (the payload is then zero bytes of length len). NULL when
 * out of memory or len is negative or too large. */
KELO_EXPORT void *construct_packet_cmd(uint32_t cmd, const void *data, int len, uint32_t *out_size);
/* The same for an acknowledgement: len + 24 bytes. */
KELO_EXPORT void *construct_packet_ack(uint32_t cmd, uint32_t ack_value, const void *data, int len,
                                       uint32_t *out_size);

/* Build, one send(fd, packet, size, 0), free. Returns what send returned
 * (a short count is not completed), or -1 when the packet cannot be built. */
KELO_EXPORT int send_av_cmd(int fd, uint32_t cmd, const void *data, int len);
KELO_EXPORT int send_av_cmd_ack(int fd, uint32_t cmd, uint32_t ack_value, const void *data, int len);

/* Looks for one packet at the front of buf[0, len), delivers it to handler
 * and returns how many bytes the caller drops from the front of its buffer:
 * 0 = wait for more data; junk before a magic is dropped; a whole packet
 * returns its end; a packet with a wrong trailer drops its magic (4 bytes
 * past it). Without a magic all but the last three bytes are dropped. At most
 * one packet per call; call again while the count is non-zero and data
 * remains. The result always lies in [0, len]. */
KELO_EXPORT int av_cmd_parse(int ctx, const unsigned char *buf, int len, av_cmd_handler handler);
KELO_EXPORT int av_cmd_ack_parse(const unsigned char *buf, int len, av_ack_handler handler);

KELO_END_DECLS

#endif
