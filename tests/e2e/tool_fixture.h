// A folder of its own for each test, and the tool run in it.
#ifndef TARN_TESTS_E2E_TOOL_FIXTURE_H_
#define TARN_TESTS_E2E_TOOL_FIXTURE_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/e2e/child_process.h"

namespace tarn_test {

class ToolFixture : public ::testing::Test {
 protected:
  using Arguments = std::vector<std::string>;

  struct Result {
    int status = -1;
    std::string output;
    std::string errors;
  };

  ToolFixture();
  ~ToolFixture() override;

  // Starts `tarn` with these arguments in `subfolder` of the test's folder, made if need be.
  std::unique_ptr<ChildProcess> start(const Arguments& arguments, const std::string& subfolder = "",
                                      bool piped_output = false);
  // Runs it to the end, with `input` on standard input.
  Result run(const Arguments& arguments, const std::string& input = "");

  // A receiver or relay on a free port of this machine, ready to take datagrams. `options` follow
  // the port.
  std::unique_ptr<ChildProcess> start_receiver(const Arguments& options,
                                               const std::string& subfolder = "received",
                                               bool piped_output = false);
  std::unique_ptr<ChildProcess> start_relay(const std::string& target, const Arguments& options);
  // "127.0.0.1:PORT" of either.
  static std::string address_of(ChildProcess& process);

  // Reproducible bytes that do not compress or repeat.
  static std::string noise(std::size_t size, unsigned seed = 1);
  std::string path(const std::string& name) const { return folder_ + "/" + name; }
  // Makes a file in the test's folder and returns its path.
  std::string make_file(const std::string& name, const std::string& bytes) const;
  std::string read(const std::string& name) const;
  bool exists(const std::string& name) const;
  // Waits until a file holds exactly `bytes`. False after the deadline.
  bool wait_for_content(const std::string& name, const std::string& bytes) const;

 private:
  std::string folder_;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_E2E_TOOL_FIXTURE_H_
