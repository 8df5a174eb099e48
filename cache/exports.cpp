// The shared library's own translation unit. The exported functions live in
// the internal library, which is linked in whole; the export list keeps
// everything else hidden.
#include "cache/cache.h"
