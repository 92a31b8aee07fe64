#include "tools/media/whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace qx::tools {
namespace {

constexpr std::size_t kMostBytes = std::size_t{1} << 30;  // a device may have no end
constexpr std::size_t kPiece = std::size_t{1} << 16;

[[noreturn]] void Fail(const std::string& path, int reason) {
  const std::string name = path == "-" ? "standard input" : "'" + path + "'";
  throw std::system_error(reason, std::generic_category(), "cannot read " + name);
}

class InputFile {
 public:
  explicit InputFile(const std::string& path)
      : path_(path),
        descriptor_(path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                                : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (descriptor_ < 0) Fail(path_, errno);
  }
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;
  ~InputFile() { close(descriptor_); }

  // Returns: the size that the file system gives; 0 for pipes and devices.
  std::size_t ExpectedSize() const {
    struct stat status = {};
    if (fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode)) return 0;
    return static_cast<std::size_t>(status.st_size);
  }

  // Returns: how many bytes were read; 0 at the end.
  std::size_t Read(std::uint8_t* to, std::size_t room) const {
    ssize_t count = 0;
    do {
      count = read(descriptor_, to, room);
    } while (count < 0 && errno == EINTR);
    if (count < 0) Fail(path_, errno);
    return static_cast<std::size_t>(count);
  }

 private:
  const std::string& path_;
  const int descriptor_;
};

}  // namespace

std::vector<std::uint8_t> ReadWholeFile(const std::string& path) {
  const InputFile file(path);
  if (file.ExpectedSize() > kMostBytes) Fail(path, EFBIG);
  // One byte more than expected: the read that finds the end needs no further memory.
  std::vector<std::uint8_t> bytes(std::max(file.ExpectedSize() + 1, kPiece));
  std::size_t filled = 0;
  while (const std::size_t count = file.Read(bytes.data() + filled, bytes.size() - filled)) {
    filled += count;
    if (filled > kMostBytes) Fail(path, EFBIG);
    if (filled == bytes.size()) bytes.resize(2 * filled);
  }
  bytes.resize(filled);
  return bytes;
}

}  // namespace qx::tools
