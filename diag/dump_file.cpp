#include "diag/dump_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "diag/log.h"

namespace util {

std::atomic<long long> DumpFile::num{0};

DumpFile::DumpFile() : enabled(false) { std::memset(directory, 0, sizeof(directory)); }

void DumpFile::read_usb_path() { read_usb_path_from(kDumpPathFile, kDumpPathFallbackFile); }

void DumpFile::read_usb_path_from(const char* primary, const char* fallback) {
  std::memset(directory, 0, sizeof(directory));
  FILE* file = std::fopen(primary, "r");
  if (file == nullptr) file = std::fopen(fallback, "r");
  if (file == nullptr) return;
  // Not trimmed: a trailing line feed becomes part of the directory name,
  // and 200 bytes or more leave the text unterminated, as devices expect.
  size_t got = std::fread(directory, 1, sizeof(directory), file);
  std::fclose(file);
  enabled = got >= 1;
  if (enabled) CV_LOG(-4, "read lumora_usb_path.txt success");
}

void DumpFile::read_to_file(long long offset, unsigned char* data, unsigned int count) {
  if (!enabled) return;
  // A plain increment: the number is shared by all queues without a lock.
  long long number = num.load(std::memory_order_relaxed) + 1;
  num.store(number, std::memory_order_relaxed);
  char name[kDirectorySize];
  // The directory may lack a terminating zero; never read past its array.
  // A name longer than the buffer is cut there, as on devices.
  int length = std::snprintf(name, sizeof(name), "%.*s/QM_id%ld_%lld_%lld.dat", kDirectorySize, directory,
                static_cast<long>(number), offset, offset + static_cast<long long>(count));
  if (length < 0) return;
  dump_read_to_file(name, data, count);
}

void DumpFile::dump_read_to_file(char* path, unsigned char* data, unsigned int count) {
  int fd = ::open(path, O_WRONLY | O_CREAT, 0777);
  if (fd < 0) {
    CV_LOG(-4, "open %s fail", path);
    return;
  }
  ssize_t written = ::write(fd, data, count);
  if (written < 0 || static_cast<unsigned int>(written) != count) {
    CV_LOG(-4, "write %s fail", path);
    ::close(fd);
    return;
  }
  ::close(fd);
  CV_LOG(-4, "SmartFile readed=%d, id:%ld", static_cast<int>(count), getid());
}

long DumpFile::getid() { return static_cast<long>(num.load(std::memory_order_relaxed)); }

}  // namespace util
