#include "tools/file_source.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace tarn_tool {
namespace {

constexpr std::size_t kBufferSize = 64 << 10;

std::string base_name(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  const std::size_t slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string failure(const std::string& path, int number) {
  return fmt::format("cannot read {}: {}", path, std::strerror(number));
}

}  // namespace

bool FileSource::check(const std::string& path, std::string& error) {
  struct stat status = {};
  if (path == "-") return true;
  if (stat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK) != 0) {
    error = failure(path, errno);
    return false;
  }
  if (S_ISDIR(status.st_mode)) error = failure(path, EISDIR);
  return !S_ISDIR(status.st_mode);
}

std::unique_ptr<FileSource> FileSource::open(const std::string& path, std::string& error) {
  const bool standard_input = path == "-";
  const int fd = standard_input ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status = {};
  if (fd < 0 || fstat(fd, &status) != 0) {
    error = failure(path, errno);
    return nullptr;
  }
  std::unique_ptr<FileSource> source(new FileSource(fd, path));
  // Standard input may be a file that somebody has read a part of.
  const off_t offset = lseek(fd, 0, SEEK_CUR);
  if (S_ISREG(status.st_mode) && offset >= 0) {
    source->size_ = static_cast<std::uint64_t>(std::max<off_t>(0, status.st_size - offset));
  }
  return source;
}

FileSource::FileSource(int fd, std::string path)
    : fd_(fd),
      path_(std::move(path)),
      name_(path_ == "-" ? "stdin" : base_name(path_)),
      buffer_(kBufferSize) {}

FileSource::~FileSource() {
  if (fd_ != STDIN_FILENO) ::close(fd_);
}

FileSource::State FileSource::next(std::size_t max, std::string_view& bytes) {
  if (begin_ == end_) {
    const State state = fill();
    if (state != State::kBytes) return state;
  }
  const std::size_t count = std::min(max, end_ - begin_);
  bytes = std::string_view(buffer_.data() + begin_, count);
  begin_ += count;
  return State::kBytes;
}

FileSource::State FileSource::fill() {
  if (would_wait()) return State::kWait;
  const ssize_t got = ::read(fd_, buffer_.data(), buffer_.size());
  if (got < 0) {
    if (errno == EAGAIN || errno == EINTR) return State::kWait;
    error_ = failure(path_, errno);
    return State::kFailed;
  }
  begin_ = 0;
  end_ = static_cast<std::size_t>(got);
  return got == 0 ? State::kEnd : State::kBytes;
}

bool FileSource::would_wait() const {
  if (size_) return false;
  pollfd entry = {fd_, POLLIN, 0};
  return ::poll(&entry, 1, 0) == 0;
}

}  // namespace tarn_tool
