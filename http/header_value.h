// Extraction of one header's value from raw header text.
#ifndef CORVANE_HTTP_HEADER_VALUE_H_
#define CORVANE_HTTP_HEADER_VALUE_H_

namespace webs {

// Returns a malloc'ed copy of the value of the header line at `line`: the
// text after the first ':' without leading or trailing blanks and control
// characters 9 to 13, ending at the first CR (else LF, else the end). The
// caller frees it with free(); null when allocation fails.
char* _copy_header_value(char const* line);

}  // namespace webs

#endif  // CORVANE_HTTP_HEADER_VALUE_H_
