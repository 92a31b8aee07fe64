// A call that can be suspended in the middle and resumed.
#pragma once

#include <ucontext.h>

#include <cstddef>

namespace qx::utils::internal {

// Runs one piece of work at a time on its own stack, but on the thread that calls Start() or
// Resume(). While the work is suspended its stack is untouched and uses no processor time.
//
// Threads: one at a time; the thread that resumes need not be the one that started.
class Coroutine {
 public:
  using Work = void (*)(void* argument);

  // Throws std::bad_alloc when there is no room for the stack (1 MiB of address space, of
  // which only the part in use takes memory).
  Coroutine();
  Coroutine(const Coroutine&) = delete;
  Coroutine& operator=(const Coroutine&) = delete;
  // No work may be suspended.
  ~Coroutine();

  // Runs `work`, which throws nothing. No other work may be suspended.
  // Returns: whether the work has ended; otherwise it has suspended itself.
  bool Start(Work work, void* argument);
  // Continues the suspended work; returns as Start() does.
  bool Resume();

  // Within the work: makes Start() or Resume() return; the next Resume() continues here.
  void Suspend();

  // Returns: whether the caller is within the work. Safe from any thread.
  bool Inside() const;
  // Returns: whether there is work to resume.
  bool suspended() const { return suspended_; }

 private:
  static void Main(unsigned high, unsigned low);
  void Loop();
  void SwitchIn();
  void SwitchOut(bool for_good);

  void* mapping_ = nullptr;
  ucontext_t outside_ = {};
  ucontext_t inside_ = {};
  Work work_ = nullptr;
  void* argument_ = nullptr;
  bool suspended_ = false;
  // What the sanitizers need to know about the two stacks.
  const void* outside_bottom_ = nullptr;
  std::size_t outside_bytes_ = 0;
  void* outside_fiber_ = nullptr;
  void* inside_fiber_ = nullptr;
};

}  // namespace qx::utils::internal
