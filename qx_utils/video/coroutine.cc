#include "qx_utils/video/coroutine.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <new>

// Sanitizers must be told when the stack changes.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QXTOOLS_ADDRESS_SANITIZER
#endif
#if __has_feature(thread_sanitizer)
#define QXTOOLS_THREAD_SANITIZER
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define QXTOOLS_ADDRESS_SANITIZER
#endif
#if defined(__SANITIZE_THREAD__)
#define QXTOOLS_THREAD_SANITIZER
#endif
#ifdef QXTOOLS_ADDRESS_SANITIZER
#include <sanitizer/common_interface_defs.h>
#endif
#ifdef QXTOOLS_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>
#endif

namespace qx::utils::internal {
namespace {

constexpr std::size_t kStackBytes = std::size_t{1}
                                    << 20U;  // FFmpeg lives with less on other systems

// An inaccessible page ends the stack.
std::size_t GuardBytes() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

void BeginSwitch([[maybe_unused]] void** save, [[maybe_unused]] const void* bottom,
                 [[maybe_unused]] std::size_t bytes, [[maybe_unused]] void* fiber) {
#ifdef QXTOOLS_ADDRESS_SANITIZER
  __sanitizer_start_switch_fiber(save, bottom, bytes);
#endif
#ifdef QXTOOLS_THREAD_SANITIZER
  __tsan_switch_to_fiber(fiber, 0);
#endif
}

void EndSwitch([[maybe_unused]] void* saved, [[maybe_unused]] const void** bottom,
               [[maybe_unused]] std::size_t* bytes) {
#ifdef QXTOOLS_ADDRESS_SANITIZER
  __sanitizer_finish_switch_fiber(saved, bottom, bytes);
#endif
}

}  // namespace

Coroutine::Coroutine() {
  mapping_ = mmap(nullptr, GuardBytes() + kStackBytes, PROT_READ | PROT_WRITE,
                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
  if (mapping_ == MAP_FAILED) throw std::bad_alloc();
  if (mprotect(mapping_, GuardBytes(), PROT_NONE) != 0 || getcontext(&inside_) != 0) {
    munmap(mapping_, GuardBytes() + kStackBytes);
    throw std::bad_alloc();
  }
  inside_.uc_stack.ss_sp = static_cast<char*>(mapping_) + GuardBytes();
  inside_.uc_stack.ss_size = kStackBytes;
  inside_.uc_link = nullptr;
  // makecontext() passes integers, not pointers.
  const auto self = reinterpret_cast<std::uintptr_t>(this);
  makecontext(&inside_, reinterpret_cast<void (*)()>(&Main), 2,
              static_cast<unsigned>(self >> 16U >> 16U), static_cast<unsigned>(self & 0xFFFFFFFFU));
#ifdef QXTOOLS_THREAD_SANITIZER
  inside_fiber_ = __tsan_create_fiber(0);
#endif
}

Coroutine::~Coroutine() {
  work_ = nullptr;
  SwitchIn();  // Loop() ends
#ifdef QXTOOLS_THREAD_SANITIZER
  __tsan_destroy_fiber(inside_fiber_);
#endif
  munmap(mapping_, GuardBytes() + kStackBytes);
}

bool Coroutine::Start(Work work, void* argument) {
  work_ = work;
  argument_ = argument;
  return Resume();
}

bool Coroutine::Resume() {
  suspended_ = false;
  SwitchIn();
  return !suspended_;
}

void Coroutine::Suspend() {
  suspended_ = true;
  SwitchOut(false);
}

bool Coroutine::Inside() const {
  const char* here = static_cast<const char*>(__builtin_frame_address(0));
  const char* bottom = static_cast<const char*>(inside_.uc_stack.ss_sp);
  return std::less_equal<>()(bottom, here) && std::less<>()(here, bottom + kStackBytes);
}

void Coroutine::Main(unsigned high, unsigned low) {
  const std::uintptr_t self = (std::uintptr_t{high} << 16U << 16U) | low;
  reinterpret_cast<Coroutine*>(self)->Loop();  // NOLINT(performance-no-int-to-ptr)
}

void Coroutine::Loop() {
  EndSwitch(nullptr, &outside_bottom_, &outside_bytes_);
  while (work_ != nullptr) {
    work_(argument_);
    SwitchOut(false);
  }
  SwitchOut(true);
}

void Coroutine::SwitchIn() {
  void* saved = nullptr;
#ifdef QXTOOLS_THREAD_SANITIZER
  outside_fiber_ = __tsan_get_current_fiber();
#endif
  BeginSwitch(&saved, inside_.uc_stack.ss_sp, kStackBytes, inside_fiber_);
  swapcontext(&outside_, &inside_);
  EndSwitch(saved, nullptr, nullptr);
}

void Coroutine::SwitchOut(bool for_good) {
  void* saved = nullptr;
  BeginSwitch(for_good ? nullptr : &saved, outside_bottom_, outside_bytes_, outside_fiber_);
  swapcontext(&inside_, &outside_);
  EndSwitch(saved, &outside_bottom_, &outside_bytes_);
}

}  // namespace qx::utils::internal
