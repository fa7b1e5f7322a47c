// libFuzzer target for the JSON parser and reader.
//
// The input's size and middle byte pick how it is cut into pieces (so seed
// files stay plain JSON); the document is parsed whole and cut, and both must agree on the result and the tree. A
// document that parses is printed, and the printed text must parse to the
// same text again. Any disagreement aborts, so the fuzzer reports it.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "doc/json_parser.h"
#include "doc/json_reader.h"

namespace {

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "json_parser_fuzz: %s\n", what);
    std::abort();
  }
}

int parse(webs::JSONReader& reader, const char* data, size_t size, size_t piece) {
  reader.clear();
  size_t at = 0;
  int result = 0;
  while (at < size && result == 0) {
    size_t n = piece == 0 ? size - at : piece;
    if (n > size - at) n = size - at;
    result = reader.streamIn(data + at, static_cast<int>(n), 0);
    at += n;
  }
  if (result == 0) result = reader.streamIn(nullptr, 0, 1);
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
  size_t piece = size == 0 ? 1 : 1 + (size * 7 + input[size / 2]) % 17;
  const char* data = reinterpret_cast<const char*>(input);

  // Small limits reach the depth and length errors with short inputs.
  static webs::JSONReader whole(64);
  static webs::JSONReader cut(64);
  int wholeResult = parse(whole, data, size, 0);
  int cutResult = parse(cut, data, size, piece);
  check(wholeResult == cutResult, "whole and cut feeds disagree on the result");
  check(whole.getError().code == cut.getError().code, "whole and cut feeds disagree on the error");
  check(whole.getParser().getErrorOffset() == cut.getParser().getErrorOffset(),
        "whole and cut feeds disagree on the error offset");
  if (wholeResult != 0) {
    check(whole.hasError() && !whole.getError().message.empty(), "failure without an error");
    return 0;
  }
  std::string printed = whole.toJSON();
  check(printed == cut.toJSON(), "whole and cut feeds built different trees");
  static webs::JSONReader again(64);
  check(parse(again, printed.data(), printed.size(), 0) == 0, "printed tree does not parse");
  check(again.toJSON() == printed, "printed tree does not round-trip");
  return 0;
}
