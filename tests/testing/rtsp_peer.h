// RTSP peers for tests: tests/testing/rtsp_*.py.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace qx::testing {

// A Python program of this folder, with its arguments, in a process of its own, which ends with
// this object.
class RtspPeer {
 public:
  explicit RtspPeer(std::vector<std::string> arguments) {
    arguments[0].insert(0, QXTOOLS_PEERS_DIR "/");
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) argv.push_back(&argument[0]);
    argv.push_back(nullptr);
    int input[2];
    int output[2];
    if (pipe(input) != 0 || pipe(output) != 0) throw std::runtime_error("no pipes");
    pid_ = fork();
    if (pid_ == 0) {
      dup2(input[0], STDIN_FILENO);
      dup2(output[1], STDOUT_FILENO);
      for (const int fd : {input[0], input[1], output[0], output[1]}) close(fd);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(input[0]);
    close(output[1]);
    input_ = input[1];
    for (char c = 0; read(output[0], &c, 1) == 1 && c != '\n';) port_ += c;
    close(output[0]);
  }
  RtspPeer(const RtspPeer&) = delete;
  RtspPeer& operator=(const RtspPeer&) = delete;
  ~RtspPeer() {
    close(input_);
    if (pid_ <= 0) return;
    Signal(SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  void Signal(int number) const { kill(pid_, number); }
  bool started() const { return !port_.empty(); }
  std::string port() const { return port_; }
  std::string url() const { return "rtsp://127.0.0.1:" + port_ + "/cam"; }

 private:
  pid_t pid_ = 0;
  int input_ = -1;
  std::string port_;
};

}  // namespace qx::testing
