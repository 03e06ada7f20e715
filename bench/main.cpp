#include <benchmark/benchmark.h>
#include <sys/resource.h>

namespace {

#if defined(__clang__)
constexpr char kCompiler[] = __VERSION__;
#else
constexpr char kCompiler[] = "g++ " __VERSION__;
#endif

// A thousand pairs of sockets are more than a shell usually allows.
void allow_many_descriptors() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  allow_many_descriptors();
  benchmark::AddCustomContext("compiler", kCompiler);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
