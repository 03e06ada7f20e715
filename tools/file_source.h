#ifndef TARN_TOOLS_FILE_SOURCE_H_
#define TARN_TOOLS_FILE_SOURCE_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn_tool {

// The bytes of a file or of standard input, read without waiting for them.
class FileSource {
 public:
  enum class State { kBytes, kWait, kEnd, kFailed };

  // Whether open() has a chance, without touching a pipe's bytes. If not, `error` says why.
  static bool check(const std::string& path, std::string& error);
  // `path` "-" is standard input. On failure null, and `error` says why.
  static std::unique_ptr<FileSource> open(const std::string& path, std::string& error);
  ~FileSource();
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;

  // What the other end is told: the last part of the path, or "stdin".
  const std::string& name() const { return name_; }
  // Bytes to expect; unknown for what is no regular file.
  const std::optional<std::uint64_t>& size() const { return size_; }
  // To be watched for input after kWait.
  int fd() const { return fd_; }

  // kBytes: `bytes` holds 1 to `max` of them, good until the next call. kFailed: see error().
  State next(std::size_t max, std::string_view& bytes);
  const std::string& error() const { return error_; }

 private:
  FileSource(int fd, std::string path);
  State fill();
  bool would_wait() const;

  const int fd_;
  const std::string path_;
  std::string name_;
  std::optional<std::uint64_t> size_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;  // of the bytes in buffer_ that were not handed out
  std::size_t end_ = 0;
  std::string error_;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_FILE_SOURCE_H_
