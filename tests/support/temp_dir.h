// A temporary directory removed with everything in it when the test ends.
#ifndef CORVANE_TESTS_SUPPORT_TEMP_DIR_H_
#define CORVANE_TESTS_SUPPORT_TEMP_DIR_H_

#include <string>

namespace testsupport {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  // Writes `content` to `name` inside the directory; returns the full path.
  std::string write(const std::string& name, const std::string& content) const;
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace testsupport

#endif  // CORVANE_TESTS_SUPPORT_TEMP_DIR_H_
