// util::DumpFile: the read dump, a diagnostic switch that writes every run of
// bytes handed to a reader into a file of its own.
//
// Embedded in every BufferQueue, which loads the switch when it is built and
// dumps on the reader's thread inside read(). The object is written only at
// construction and read afterwards, so it needs no lock; the process-wide
// dump number is shared by all queues without one on purpose (two dumps at
// the same moment may share a number, which only makes them share a name).
#ifndef CORVANE_DIAG_DUMP_FILE_H_
#define CORVANE_DIAG_DUMP_FILE_H_

#include <atomic>

namespace util {

// The directory files a device may carry, tried in this order.
constexpr char kDumpPathFile[] = "/data/vendor/3rd_rw/lumora/lumora_usb_path.txt";
constexpr char kDumpPathFallbackFile[] = "/data/lumora/lumora_usb_path.txt";

class DumpFile {
 public:
  static constexpr int kDirectorySize = 200;

  DumpFile();

  // Loads the switch from the device's directory files.
  void read_usb_path();
  // read_usb_path() with the two paths given, so tests can use temp files.
  void read_usb_path_from(const char* primary, const char* fallback);
  // Writes `count` bytes read at `offset` to the next dump file, if enabled.
  void read_to_file(long long offset, unsigned char* data, unsigned int count);
  // Writes `count` bytes at the start of `path` (created 0777, not
  // truncated); failures are logged only.
  void dump_read_to_file(char* path, unsigned char* data, unsigned int count);
  long getid();

  bool isEnabled() const { return enabled; }
  const char* getDirectory() const { return directory; }

  // Dump files written so far in the process; atomic only so that racing
  // dumps are defined behaviour (a load then a store, not an increment).
  static std::atomic<long long> num;

 private:
  bool enabled;
  char directory[kDirectorySize];
};

}  // namespace util

#endif  // CORVANE_DIAG_DUMP_FILE_H_
