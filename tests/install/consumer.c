/* A client of an installed libcorvane: copies a local file through the
 * library to standard output, so a script can compare the copy with the
 * file. Exits 0 when every call went as the interface promises.
 * Usage: corvane-consumer /absolute/path/to/file > copy */
#include <stdio.h>

#include <corvane/smart_file.h>

int main(int argc, char** argv) {
  static char buf[65536];
  int handle = -1, r = argc == 2 ? x_smart_file_open(argv[1], &handle) : SMFR_FAILED;
  long long total = 0, size = r == SMFR_OK ? x_smart_file_size(handle) : -1;
  while (r == SMFR_OK) {
    unsigned long got = 0;
    r = x_smart_file_read(handle, buf, (int)sizeof buf, &got);
    fwrite(buf, 1, got, stdout);
    total += (long long)got;
    if (r == SMFR_OK && got == 0) r = SMFR_FAILED; /* a successful read delivers bytes */
  }
  int ok = r == SMFR_EOF && total == size && x_smart_file_offset(handle) == total;
  if (x_smart_file_close(handle) != SMFR_OK) ok = 0;
  if (!ok) fprintf(stderr, "corvane-consumer: code %d after %lld of %lld bytes\n", r, total, size);
  return ok ? 0 : 1;
}
