#include "tools/pictures/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <system_error>
#include <utility>

namespace qx::tools {
namespace {

// Files that the signal handler removes. The strings belong to the OutputFile objects.
std::atomic<const char*> g_temporaries[8];
static_assert(std::atomic<const char*>::is_always_lock_free, "used by a signal handler");

void RemoveTemporaries(int signal) {
  for (const auto& name : g_temporaries) {
    if (const char* path = name.load()) unlink(path);
  }
  // The handler was reset when it was called: the default action ends the program now.
  raise(signal);
}

void CatchSignals() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;  // under nohup, or in the background
    action.sa_handler = RemoveTemporaries;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(signal, &action, nullptr);
  }
}

void Replace(const char* old_name, const char* new_name) {
  for (auto& slot : g_temporaries) {
    const char* expected = old_name;
    if (slot.compare_exchange_strong(expected, new_name)) return;
  }
}

bool StartsWith(const std::string& text, const char* start) { return text.rfind(start, 0) == 0; }

// Devices and pipes cannot be replaced by renaming; what /dev/stdout leads to should not be.
bool IsWrittenDirectly(const std::string& path) {
  struct stat status = {};
  return StartsWith(path, "/dev/") || StartsWith(path, "/proc/") ||
         (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode));
}

}  // namespace

OutputFile::OutputFile(const std::string& path) : path_(path) {
  if (path == "-") {
    descriptor_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  } else if (IsWrittenDirectly(path)) {
    descriptor_ = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  } else {
    CreateTemporary();
  }
  if (descriptor_ < 0) {
    const int reason = errno;
    CloseFile();
    errno = reason;
    Fail();
  }
}

OutputFile::~OutputFile() { CloseFile(); }

void OutputFile::CreateTemporary() {
  std::error_code ignored;
  if (std::filesystem::is_symlink(path_, ignored)) {  // the link stays, its target is replaced
    path_ = std::filesystem::canonical(path_).string();
  }
  if (access(path_.c_str(), W_OK) != 0 && errno != ENOENT) return;
  temporary_ = path_ + ".part" + std::to_string(getpid());
  CatchSignals();
  Replace(nullptr, temporary_.c_str());
  descriptor_ = open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
}

void OutputFile::Write(std::vector<iovec> pieces) {
  auto rest = pieces.begin();
  while (rest != pieces.end()) {
    const auto count = std::min<std::ptrdiff_t>(pieces.end() - rest, IOV_MAX);
    const ssize_t result = writev(descriptor_, &*rest, static_cast<int>(count));
    if (result < 0 && errno == EINTR) continue;
    if (result < 0) Fail();
    auto written = static_cast<std::size_t>(result);
    while (rest != pieces.end() && written >= rest->iov_len) written -= (rest++)->iov_len;
    if (rest == pieces.end()) break;
    rest->iov_base = static_cast<char*>(rest->iov_base) + written;
    rest->iov_len -= written;
  }
}

void OutputFile::Write(const void* data, std::size_t size) {
  Write({iovec{const_cast<void*>(data), size}});  // writev() only reads it
}

void OutputFile::Commit() {
  const int closing = std::exchange(descriptor_, -1);
  if (close(closing) != 0) Fail();
  if (temporary_.empty()) return;
  if (std::rename(temporary_.c_str(), path_.c_str()) != 0) Fail();
  Replace(temporary_.c_str(), nullptr);
  temporary_.clear();
}

void OutputFile::CloseFile() {
  if (descriptor_ >= 0) close(descriptor_);
  if (temporary_.empty()) return;
  unlink(temporary_.c_str());
  Replace(temporary_.c_str(), nullptr);
}

void OutputFile::Fail() const {
  const std::string name = path_ == "-" ? "standard output" : "'" + path_ + "'";
  throw std::system_error(errno, std::generic_category(), "cannot write " + name);
}

OutputDirectory::~OutputDirectory() {
  std::error_code is_in_use;
  for (auto path = created_.rbegin(); path != created_.rend(); ++path) {
    std::filesystem::remove(*path, is_in_use);
  }
}

void OutputDirectory::Create() {
  std::filesystem::path path;
  for (const auto& part : path_) {
    path /= part;
    std::error_code error;
    if (std::filesystem::create_directory(path, error)) created_.push_back(path);
    if (error) {
      throw std::system_error(error, "cannot create directory '" + path_.string() + "'");
    }
  }
}

}  // namespace qx::tools
