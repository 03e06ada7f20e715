// Runs a fuzz target over every file below the directories, or of the files, that are named.
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// The sanitizers' own way to end a process.
extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

namespace {

namespace fs = std::filesystem;

const char* replayed = nullptr;  // the file that is being run

void name_input() {
  if (replayed == nullptr) return;
  const char* const parts[] = {"\nThis happened with the input ", replayed, "\n"};
  // Nothing is left to do if it cannot be said.
  for (const char* part : parts) {
    if (write(STDERR_FILENO, part, strlen(part)) < 0) return;
  }
}

void on_abort(int) { name_input(); }

// In the order of their names, so that every run is the same.
std::vector<fs::path> files_in(const fs::path& root) {
  std::vector<fs::path> files;
  std::error_code failed;
  if (fs::is_regular_file(root, failed)) files.push_back(root);
  if (fs::is_directory(root, failed)) {
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      if (entry.is_regular_file()) files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool run_file(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  if (!file.good() && !file.eof()) {
    fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  replayed = path.c_str();
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  replayed = nullptr;
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 2) {
    fprintf(stderr, "usage: %s DIRECTORY|FILE...\n", arguments[0]);
    return 2;
  }
  signal(SIGABRT, on_abort);
  if (__sanitizer_set_death_callback != nullptr) __sanitizer_set_death_callback(name_input);
  size_t total = 0;
  for (int i = 1; i < count; ++i) {
    const std::vector<fs::path> files = files_in(arguments[i]);
    if (files.empty()) {
      fprintf(stderr, "%s holds no inputs\n", arguments[i]);
      return 1;
    }
    for (const fs::path& file : files) {
      if (!run_file(file)) return 1;
    }
    total += files.size();
  }
  fprintf(stderr, "%zu inputs, nothing found\n", total);
  return 0;
}
