#include "http/header_value.h"

#include <cstdlib>
#include <cstring>

namespace webs {

namespace {
bool isBlankOrControl(char c) { return c == ' ' || (c >= 9 && c <= 13); }
}  // namespace

char* _copy_header_value(char const* line) {
  char const* start = std::strchr(line, ':');
  if (start == nullptr) {
    start = line + std::strlen(line);
  } else {
    ++start;
  }
  while (*start != '\0' && isBlankOrControl(*start)) ++start;

  char const* end = std::strchr(start, '\r');
  if (end == nullptr) end = std::strchr(start, '\n');
  if (end == nullptr) end = start + std::strlen(start);
  while (end > start && isBlankOrControl(end[-1])) --end;

  size_t length = static_cast<size_t>(end - start);
  char* copy = static_cast<char*>(std::malloc(length + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, start, length);
  copy[length] = '\0';
  return copy;
}

}  // namespace webs
