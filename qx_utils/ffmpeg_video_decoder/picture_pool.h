// Reuses the buffers of decoded pictures: fresh memory from the system costs more than the copy
// into it, because the kernel clears each page first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

namespace qx::utils::ffmpeg {

struct PictureBlock;

// The buffers of one decoder's pictures. It keeps at most as many as the stream needed at the same
// time within the last kWindow to 2 x kWindow pictures, so the backlog of a slow consumer is freed
// later, and only buffers of the newest size. Buffers may outlive the pool; they are then freed one
// by one.
//
// Threads: any thread may call any operation at any time.
class PicturePool {
 public:
  static constexpr std::size_t kWindow = 128;  // pictures; five seconds of an ordinary camera

  PicturePool() = default;
  PicturePool(const PicturePool&) = delete;
  PicturePool& operator=(const PicturePool&) = delete;
  ~PicturePool() { Close(); }

  // Returns: a buffer of exactly `bytes`, uninitialised.
  // Errors:  std::bad_alloc.
  static void* Take(const std::shared_ptr<PicturePool>& pool, std::size_t bytes);

  // Takes back a buffer that Take() returned.
  static void Return(void* buffer) noexcept;

  // Frees the kept buffers, and from now on each buffer as soon as it is returned.
  void Close() noexcept;

  // Number of kept buffers.
  std::size_t Kept() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return kept_count_;
  }

 private:
  PictureBlock* Reuse(std::size_t bytes, PictureBlock*& surplus);
  bool Keep(PictureBlock* block) noexcept;
  PictureBlock* Surplus() noexcept;

  mutable std::mutex mutex_;
  bool closed_ = false;
  std::size_t bytes_ = 0;         // of each kept buffer
  PictureBlock* kept_ = nullptr;  // a list, last in first out: its memory is warm
  std::size_t kept_count_ = 0;
  std::size_t in_use_ = 0;
  std::size_t peak_ = 0;       // of in_use_ in the current window
  std::size_t last_peak_ = 0;  // in the previous window
  std::size_t taken_ = 0;      // in the current window
};

// One byte of a picture. Its operators make `new PictureByte[bytes]` and `delete[]` use a pool.
struct PictureByte {
  std::uint8_t value;

  static void* operator new[](std::size_t bytes, const std::shared_ptr<PicturePool>& pool) {
    return PicturePool::Take(pool, bytes);
  }
  static void operator delete[](void* buffer) noexcept { PicturePool::Return(buffer); }
  static void operator delete[](void* buffer, const std::shared_ptr<PicturePool>&) noexcept {
    PicturePool::Return(buffer);
  }
};

}  // namespace qx::utils::ffmpeg
