// webs::DullFileManager: the process-wide registry of DullFiles. Every open
// of the same location text (byte for byte) shares the DullFile already open
// on it; a DullFile is destroyed when its last SmartFile leaves, or by the
// sweep of the next open or by cleanup() once nothing references it.
//
// Class-level state only, built at load. openfsLock guards openfs and is
// held across each whole operation, DullFile open and close included; it is
// taken before any DullFile lock. Called from any caller thread.
#ifndef CORVANE_FILE_DULL_FILE_MANAGER_H_
#define CORVANE_FILE_DULL_FILE_MANAGER_H_

#include <list>
#include <string>

#include "file/dull_file.h"
#include "thread/semaphore.h"

namespace webs {

class SmartFile;

class DullFileManager {
 public:
  static DullFile* openDullFile(SmartFile* file, const std::string& url, int bufferSize);
  static int closeDullFile(SmartFile* file, DullFile* dull);
  static void cleanup();
  static void dumpDebugInfo();
  // Number of DullFiles alive (for tests and tools).
  static int openCount();

  static std::list<DullFile*> openfs;
  static util::Semaphore openfsLock;

 private:
  // REQUIRES: openfsLock held. Closes under the file's own lock, destroys.
  static void destroy(DullFile* dull);
};

}  // namespace webs

#endif  // CORVANE_FILE_DULL_FILE_MANAGER_H_
