/* A client of an installed libcorvane: reads a local file through the
 * library from start to end and prints its size, the byte count read and
 * the CRC-32 of the bytes (the checksum gzip and zlib use), so a script can
 * compare them with the file itself.
 *
 * Usage: corvane-consumer /absolute/path/to/file
 * Prints "size=<n> bytes=<n> crc32=<8 hex digits>"; exits 0 when every call
 * went as the interface promises, 1 otherwise. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <corvane/smart_file.h>

static uint32_t crc32_update(uint32_t crc, const unsigned char* data, unsigned long n) {
  static uint32_t table[256];
  static int ready = 0;
  if (!ready) {
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      table[i] = c;
    }
    ready = 1;
  }
  crc = ~crc;
  for (unsigned long i = 0; i < n; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s /absolute/path\n", argv[0]);
    return 2;
  }
  int handle = -1;
  int r = x_smart_file_open(argv[1], &handle);
  if (r != SMFR_OK) {
    fprintf(stderr, "x_smart_file_open: %d\n", r);
    return 1;
  }
  long long size = x_smart_file_size(handle); /* waits for the first data */

  static char buf[65536];
  unsigned long long total = 0;
  uint32_t crc = 0;
  int status = 0;
  for (;;) {
    unsigned long got = 0;
    r = x_smart_file_read(handle, buf, (int)sizeof buf, &got);
    if (r != SMFR_OK && r != SMFR_EOF) {
      fprintf(stderr, "x_smart_file_read at %llu: %d\n", total, r);
      status = 1;
      break;
    }
    crc = crc32_update(crc, (const unsigned char*)buf, got);
    total += got;
    if (r == SMFR_EOF) break;
    if (got == 0) { /* a successful read always delivers bytes */
      fprintf(stderr, "x_smart_file_read at %llu: 0 bytes without the end\n", total);
      status = 1;
      break;
    }
  }
  long long offset = x_smart_file_offset(handle);
  if (status == 0 && offset != (long long)total) {
    fprintf(stderr, "x_smart_file_offset: %lld after %llu bytes\n", offset, total);
    status = 1;
  }
  r = x_smart_file_close(handle);
  if (r != SMFR_OK) {
    fprintf(stderr, "x_smart_file_close: %d\n", r);
    status = 1;
  }
  printf("size=%lld bytes=%llu crc32=%08x\n", size, total, (unsigned)crc);
  return status;
}
