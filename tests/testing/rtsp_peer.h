// An RTSP peer for tests: tests/testing/rtsp_camera.py.
#pragma once

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace qx::testing {

// The camera with a clip, and options as a shell takes them, in a process of its own, which ends
// with this object.
class RtspPeer {
 public:
  explicit RtspPeer(const std::string& clip, const std::string& options = "") {
    const std::string command = "exec '" QXTOOLS_PEERS_DIR "/rtsp_camera.py' '" QXTOOLS_CLIPS_DIR
                                "/" +
                                clip + "' " + options;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0) pid_ = fork();
    if (pid_ == 0) {
      for (const int fd : {STDIN_FILENO, STDOUT_FILENO}) dup2(ends[1], fd);
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
    if (pid_ < 0) throw std::runtime_error("no process for a camera");
    close(ends[1]);
    input_ = ends[0];
    for (char c = 0; read(input_, &c, 1) == 1 && c != '\n';) port_ += c;
    if (port_.empty()) throw std::runtime_error("no camera listens: " + command);
  }
  RtspPeer(const RtspPeer&) = delete;
  RtspPeer& operator=(const RtspPeer&) = delete;
  ~RtspPeer() {
    close(input_);
    Signal(SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  void Signal(int number) const { kill(pid_, number); }
  std::string port() const { return port_; }
  std::string url() const { return "rtsp://127.0.0.1:" + port_ + "/cam"; }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  std::string port_;
};

}  // namespace qx::testing
