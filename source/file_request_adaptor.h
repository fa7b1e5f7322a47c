// FileRequestAdaptor: chooses and builds the producer for a location, and
// releases it again. Stateless; called by DullFile::open and DullFile's
// release on any caller thread.
#ifndef CORVANE_SOURCE_FILE_REQUEST_ADAPTOR_H_
#define CORVANE_SOURCE_FILE_REQUEST_ADAPTOR_H_

#include <string>

#include "source/file_request.h"

class FileRequestAdaptor {
 public:
  // The kind of source a location text selects. Substring tests, not prefix
  // tests: "/mnt/http://x" is an HTTP location.
  enum Kind { KIND_NONE = 0, KIND_LOCAL = 1, KIND_HTTP = 2 };
  static Kind kindOf(std::string const& location);

  // A new, not yet initialised request for `location`, or null when no
  // source serves it. The caller calls initialize() next.
  static FileRequest* createFileRequest(std::string const& location);
  // release(), then delete. Accepts null.
  static void releaseFileRequest(FileRequest* request);

  // Tests put producers of their own behind chosen locations: while set,
  // `factory` is asked first, and a non-null answer is the request.
  typedef FileRequest* (*Factory)(std::string const& location);
  static void setFactoryForTesting(Factory factory);
};

#endif  // CORVANE_SOURCE_FILE_REQUEST_ADAPTOR_H_
