#include "tests/instructions/count.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace instructions {

void report(const Path& path) {
  const std::string label =
      std::string(path.name) + " " + std::to_string(path.rounds * path.operations);
  CALLGRIND_DUMP_STATS_AT(label.c_str());
}

void require(bool condition, const Path& path, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "%s: %s\n", path.name, what);
  std::exit(1);
}

}  // namespace instructions
