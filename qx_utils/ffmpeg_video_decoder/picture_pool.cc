#include "qx_utils/ffmpeg_video_decoder/picture_pool.h"

#include <algorithm>
#include <new>
#include <utility>

#if __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, bytes) ((void)(address), (void)(bytes))
#define ASAN_UNPOISON_MEMORY_REGION(address, bytes) ((void)(address), (void)(bytes))
#endif

namespace qx::utils::ffmpeg {

// The header of a buffer, in the same allocation. The allocation ends with the buffer's last byte,
// so that the address sanitizer sees accesses past it. A kept buffer is poisoned for the sanitizer.
struct alignas(std::max_align_t) PictureBlock {
  std::shared_ptr<PicturePool> pool;  // empty while kept: a pool does not own itself
  PictureBlock* next = nullptr;
  std::size_t bytes = 0;
  std::uint8_t guard[32] = {};  // poisoned at all times
};

namespace {

void* BufferOf(PictureBlock* block) { return block + 1; }

PictureBlock* NewBlock(std::size_t bytes) {
  void* const memory = ::operator new(sizeof(PictureBlock) + bytes);
  auto* const block = new (memory) PictureBlock;
  block->bytes = bytes;
  ASAN_POISON_MEMORY_REGION(block->guard, sizeof(block->guard));
  return block;
}

void FreeAll(PictureBlock* block) noexcept {
  while (block != nullptr) {
    PictureBlock* const next = block->next;
    ASAN_UNPOISON_MEMORY_REGION(block, sizeof(PictureBlock) + block->bytes);
    block->~PictureBlock();
    ::operator delete(block);
    block = next;
  }
}

}  // namespace

void* PicturePool::Take(const std::shared_ptr<PicturePool>& pool, std::size_t bytes) {
  PictureBlock* surplus = nullptr;
  PictureBlock* block = pool->Reuse(bytes, surplus);
  FreeAll(surplus);
  if (block == nullptr) {
    try {
      block = NewBlock(bytes);
    } catch (...) {
      const std::lock_guard<std::mutex> lock(pool->mutex_);
      --pool->in_use_;
      throw;
    }
  }
  ASAN_UNPOISON_MEMORY_REGION(BufferOf(block), bytes);
  block->pool = pool;
  return BufferOf(block);
}

void PicturePool::Return(void* buffer) noexcept {
  if (buffer == nullptr) return;
  PictureBlock* const block = static_cast<PictureBlock*>(buffer) - 1;
  ASAN_POISON_MEMORY_REGION(buffer, block->bytes);
  // May be the last owner.
  const std::shared_ptr<PicturePool> pool = std::move(block->pool);
  if (!pool->Keep(block)) FreeAll(block);
}

void PicturePool::Close() noexcept {
  PictureBlock* kept;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    kept_count_ = 0;
    kept = std::exchange(kept_, nullptr);
  }
  FreeAll(kept);
}

// Counts a buffer of `bytes` as in use. Returns: a kept one, or null; `surplus` is a list of the
// buffers that are no longer needed.
PictureBlock* PicturePool::Reuse(std::size_t bytes, PictureBlock*& surplus) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (bytes != bytes_) {
    bytes_ = bytes;
    kept_count_ = 0;
    surplus = std::exchange(kept_, nullptr);
  }
  peak_ = std::max(peak_, ++in_use_);
  if (++taken_ == kWindow) {
    taken_ = 0;
    last_peak_ = std::exchange(peak_, in_use_);
  }
  PictureBlock* const block = kept_;
  if (block == nullptr) return nullptr;
  kept_ = std::exchange(block->next, nullptr);
  --kept_count_;
  if (surplus == nullptr) surplus = Surplus();
  return block;
}

// Counts `block` as no longer in use. Returns: whether it is kept.
bool PicturePool::Keep(PictureBlock* block) noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  --in_use_;
  if (closed_ || block->bytes != bytes_) return false;
  if (in_use_ + kept_count_ >= std::max(peak_, last_peak_)) return false;
  block->next = std::exchange(kept_, block);
  ++kept_count_;
  return true;
}

// Returns: a list of the kept buffers that the last two windows did not need.
PictureBlock* PicturePool::Surplus() noexcept {
  PictureBlock* surplus = nullptr;
  while (kept_ != nullptr && in_use_ + kept_count_ > std::max(peak_, last_peak_)) {
    PictureBlock* const block = kept_;
    kept_ = block->next;
    block->next = std::exchange(surplus, block);
    --kept_count_;
  }
  return surplus;
}

}  // namespace qx::utils::ffmpeg
