#include "tools/file_sink.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace tarn_tool {
namespace {

constexpr int kMaxSuffix = 9999;
constexpr mode_t kMode = 0666;

std::string failure(const std::string& name) {
  return fmt::format("cannot write {}: {}", name, std::strerror(errno));
}

}  // namespace

std::string safe_file_name(const std::string& offered) {
  const std::size_t slash = offered.find_last_of('/');
  std::string name = slash == std::string::npos ? offered : offered.substr(slash + 1);
  for (char& c : name) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) c = '_';
  }
  if (name.empty()) return "received";
  if (name.front() == '.') name.front() = '_';
  return name;
}

std::unique_ptr<FileSink> FileSink::create(const std::string& offered, std::string& error) {
  const std::string wanted = safe_file_name(offered);
  std::string name = wanted;
  for (int suffix = 1; suffix <= kMaxSuffix; ++suffix) {
    const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode);
    if (fd >= 0) return std::unique_ptr<FileSink>(new FileSink(fd, name, true));
    if (errno != EEXIST) break;
    name = fmt::format("{}.{}", wanted, suffix);
  }
  error = failure(name);
  return nullptr;
}

std::unique_ptr<FileSink> FileSink::open(const std::string& path, std::string& error) {
  if (path == "-") return std::unique_ptr<FileSink>(new FileSink(STDOUT_FILENO, "stdout", false));
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode);
  if (fd >= 0) return std::unique_ptr<FileSink>(new FileSink(fd, path, false));
  error = failure(path);
  return nullptr;
}

FileSink::FileSink(int fd, std::string name, bool created)
    : fd_(fd), name_(std::move(name)), created_(created) {
  struct stat status = {};
  regular_ = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

FileSink::~FileSink() {
  std::string ignored;
  close(ignored);
}

void FileSink::queue(std::string bytes) {
  queued_ += bytes.size();
  queue_.push_back(std::move(bytes));
}

bool FileSink::flush(std::string& error) {
  while (!queue_.empty() && !would_wait()) {
    if (!write_some()) {
      error = failure(name_);
      return false;
    }
  }
  return true;
}

bool FileSink::would_wait() const {
  if (regular_) return false;
  pollfd entry = {fd_, POLLOUT, 0};
  return ::poll(&entry, 1, 0) == 0;
}

bool FileSink::write_some() {
  const std::string& piece = queue_.front();
  // A pipe that is ready for output takes PIPE_BUF bytes without waiting, and promises no more.
  const std::size_t most = regular_ ? piece.size() : static_cast<std::size_t>(PIPE_BUF);
  const std::size_t count = std::min(most, piece.size() - offset_);
  const ssize_t written = ::write(fd_, piece.data() + offset_, count);
  if (written < 0) return errno == EINTR || errno == EAGAIN;
  offset_ += static_cast<std::size_t>(written);
  queued_ -= static_cast<std::size_t>(written);
  if (offset_ == piece.size()) {
    queue_.pop_front();
    offset_ = 0;
  }
  return true;
}

bool FileSink::close(std::string& error) {
  const int fd = std::exchange(fd_, -1);
  if (fd < 0 || fd == STDOUT_FILENO || ::close(fd) == 0) return true;
  error = failure(name_);
  return false;
}

void FileSink::discard() {
  if (created_) ::unlink(name_.c_str());
}

}  // namespace tarn_tool
