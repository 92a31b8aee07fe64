#include "tools/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace qx::tools {
namespace {

constexpr std::size_t kBarWidth = 40;  // columns

}  // namespace

Progress::Progress(std::size_t total) : total_(total), is_terminal_(isatty(STDERR_FILENO) != 0) {}

Progress::~Progress() {
  if (is_terminal_) std::fputs("\r\033[K", stderr);  // to the line's start; clear to its end
}

void Progress::Update(std::size_t done) {
  const auto now = std::chrono::steady_clock::now();
  if (!is_terminal_ || now < next_) return;
  next_ = now + std::chrono::milliseconds(100);
  if (total_ == 0) {
    std::fprintf(stderr, "\r%zu pictures", done);
  } else {
    DrawBar(done);
  }
}

void Progress::DrawBar(std::size_t done) const {
  const std::size_t filled = std::min(done, total_) * kBarWidth / total_;
  const std::string bar = std::string(filled, '#') + std::string(kBarWidth - filled, '.');
  std::fprintf(stderr, "\r[%s] %zu of %zu pictures", bar.c_str(), done, total_);
}

}  // namespace qx::tools
