/* encodings: hex, base64, URL query fields and MD5, with the buffer sizes
 * each function wants. Nothing here allocates: every result goes into a
 * buffer the caller sized, and each function says how big. */
#include <stdio.h>
#include <string.h>

#include <kelo/encoding.h>
#include <kelo/md5.h>

int main(void) {
  /* Hex: 2 * len + 1 bytes (the NUL counted). */
  const unsigned char mac[6] = {0x28, 0x6c, 0x07, 0xa1, 0x00, 0xff};
  char hex[2 * sizeof mac + 1];
  if (hex_stringify(mac, sizeof mac, hex, sizeof hex) < 0) return 1;
  printf("hex: %s\n", hex);

  /* Base64: (len + 2) / 3 * 4 + 1 bytes; decoding needs at most 3 / 4 of
   * the text and skips anything outside the alphabet (line breaks, '='). */
  const char secret[] = "foobar";
  char b64[(sizeof secret - 1 + 2) / 3 * 4 + 1];
  if (base64_encode((const unsigned char *)secret, strlen(secret), b64, sizeof b64) < 0) return 1;
  unsigned char back[16];
  const char wrapped[] = "Zm9v\nYmFy\n";
  int n = base64_decode(wrapped, strlen(wrapped), back, sizeof back);
  if (n < 0) return 1;
  printf("base64: %s, back: %.*s\n", b64, n, (const char *)back);

  /* A field of a query string, percent-decoded ('+' stays '+'). The result
   * counts the NUL; -1 when the field is absent or its escapes are bad. */
  const char query[] = "ssid=Home%20Net&key=a%2Bb+c&ch=6";
  char ssid[33], key[65];
  if (url_qs_field(query, strlen(query), "ssid", ssid, sizeof ssid) < 0) return 1;
  if (url_qs_field(query, strlen(query), "key", key, sizeof key) < 0) return 1;
  printf("query: ssid \"%s\", key \"%s\", pin %s\n", ssid, key,
         url_qs_field(query, strlen(query), "pin", key, sizeof key) < 0 ? "absent" : key);

  /* MD5 over pieces: Init, Update as data comes, Final. */
  MD5_CTX ctx;
  unsigned char digest[16];
  char md5[33];
  MD5Init(&ctx);
  MD5Update(&ctx, (const unsigned char *)"a", 1);
  MD5Update(&ctx, (const unsigned char *)"bc", 2);
  MD5Final(&ctx, digest);
  hex_stringify(digest, sizeof digest, md5, sizeof md5);
  printf("md5(\"abc\"): %s\n", md5);
  return 0;
}
