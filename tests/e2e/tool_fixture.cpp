#include "tests/e2e/tool_fixture.h"

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

namespace tarn_test {

namespace fs = std::filesystem;

ToolFixture::ToolFixture() {
  std::string pattern = (fs::temp_directory_path() / "tarn-e2e.XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "no folder " << pattern;
  folder_ = pattern;
}

ToolFixture::~ToolFixture() {
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

std::unique_ptr<ChildProcess> ToolFixture::start(const Arguments& arguments,
                                                 const std::string& subfolder, bool piped_output) {
  fs::create_directories(path(subfolder));
  Arguments command{TARN_TOOL_PATH};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return std::make_unique<ChildProcess>(command, path(subfolder), piped_output);
}

ToolFixture::Result ToolFixture::run(const Arguments& arguments, const std::string& input) {
  const auto process = start(arguments);
  if (!input.empty()) process->write(input);
  process->close_input();
  Result result;
  result.status = process->wait();
  result.output = process->output();
  result.errors = process->errors();
  return result;
}

std::unique_ptr<ChildProcess> ToolFixture::start_receiver(const Arguments& options,
                                                          const std::string& subfolder,
                                                          bool piped_output) {
  Arguments arguments{"recv", "127.0.0.1:0"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  auto process = start(arguments, subfolder, piped_output);
  EXPECT_TRUE(process->wait_for_error_text("listening on port ")) << process->errors();
  return process;
}

std::unique_ptr<ChildProcess> ToolFixture::start_relay(const std::string& target,
                                                       const Arguments& options) {
  Arguments arguments{"relay", "127.0.0.1:0", target};
  arguments.insert(arguments.end(), options.begin(), options.end());
  auto process = start(arguments);
  EXPECT_TRUE(process->wait_for_error_text("relaying port ")) << process->errors();
  return process;
}

std::string ToolFixture::address_of(ChildProcess& process) {
  EXPECT_TRUE(process.wait_for_error_text("\n"));
  const std::string text = process.errors();
  const std::size_t at = text.find(" port ");
  if (at == std::string::npos) return "";
  return "127.0.0.1:" + std::to_string(std::stoi(text.substr(at + 6)));
}

std::string ToolFixture::noise(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

std::string ToolFixture::make_file(const std::string& name, const std::string& bytes) const {
  fs::create_directories(fs::path(path(name)).parent_path());
  std::ofstream(path(name), std::ios::binary) << bytes;
  return path(name);
}

std::string ToolFixture::read(const std::string& name) const {
  std::ifstream file(path(name), std::ios::binary);
  EXPECT_TRUE(file.good()) << name;
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

bool ToolFixture::exists(const std::string& name) const { return fs::exists(path(name)); }

bool ToolFixture::wait_for_content(const std::string& name, const std::string& bytes) const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!exists(name) || read(name) != bytes) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace tarn_test
