#ifndef TARN_TOOLS_FILE_SINK_H_
#define TARN_TOOLS_FILE_SINK_H_

#include <deque>
#include <memory>
#include <string>

namespace tarn_tool {

// A name that stays in the current folder: the last part of what the peer offered, without control
// characters, and with "_" for a leading dot. Never empty.
std::string safe_file_name(const std::string& offered);

// Where received bytes go. They are queued, and written as fast as the other side takes them.
class FileSink {
 public:
  // A new file in the current folder, under the sender's name made safe. A name that exists gets
  // ".1", ".2" ... appended; no file is ever replaced. On failure null, and `error` says why.
  static std::unique_ptr<FileSink> create(const std::string& offered, std::string& error);
  // The file `path`, replaced if it exists; "-" is standard output.
  static std::unique_ptr<FileSink> open(const std::string& path, std::string& error);
  ~FileSink();
  FileSink(const FileSink&) = delete;
  FileSink& operator=(const FileSink&) = delete;

  const std::string& name() const { return name_; }

  void queue(std::string bytes);
  // Bytes queued and not written.
  std::size_t queued() const { return queued_; }

  // Writes without waiting, as far as that goes. False when writing failed; `error` says why.
  bool flush(std::string& error);
  // To be watched for output while something is queued.
  int fd() const { return fd_; }

  // Ends the file. False when the system reports that bytes did not get there.
  bool close(std::string& error);

  // Removes a file that create() made.
  void discard();

 private:
  FileSink(int fd, std::string name, bool created);
  bool would_wait() const;
  // Writes a part of the first piece. False on failure.
  bool write_some();

  int fd_;
  const std::string name_;
  const bool created_;
  bool regular_ = false;
  std::deque<std::string> queue_;
  std::size_t queued_ = 0;
  std::size_t offset_ = 0;  // bytes of the first piece that are written
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_FILE_SINK_H_
