#include "oxutils/assert.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>

namespace oxutils {

void assertion_failed(const char* source, int line, const char* function, const char* condition) {
  char text[512];
  const int length = snprintf(text, sizeof text, "%s:%d: %s: assertion \"%s\" failed\n", source,
                              line, function, condition);
  const size_t size = std::min(static_cast<size_t>(std::max(length, 0)), sizeof text - 1);
  // One write, so that lines of several threads do not mix; nothing is left to do if it fails.
  if (write(STDERR_FILENO, text, size) < 0) abort();
  abort();
}

}  // namespace oxutils
