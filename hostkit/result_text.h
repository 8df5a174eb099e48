// Texts for the library's result codes, for messages a person reads.
#ifndef HOSTKIT_RESULT_TEXT_H_
#define HOSTKIT_RESULT_TEXT_H_

#include <string>

#include "cache/cache.h"

namespace hostkit {

// What `result` means, in a few words: "the cache directory could not be
// created". A value the library does not use gives "unknown result code".
const char* ResultText(AERROR result);

// "error 3003 (the cache directory could not be created)".
std::string DescribeResult(AERROR result);

}  // namespace hostkit

#endif  // HOSTKIT_RESULT_TEXT_H_
