// The variants of the cost volume over maps of any shape and any scale.
#include "fuzz/cost_volume_properties.h"
#include "fuzz/require.h"

// Input: the shape, where the right map begins, the scale, and the values of both maps over and
// over.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHeader = 8;
  if (size <= kHeader) return 0;
  float scale = 0;
  std::memcpy(&scale, data + 4, sizeof(scale));
  std::size_t next[] = {data[3], 0};  // of the right and the left map
  const auto value = [&](bool left) { return data[kHeader + next[left]++ % (size - kHeader)]; };
  const qx::fuzzing::Shape shape = {1U + data[0] % 80, 32U + data[1] % 160, 1U + data[2] % 100};
  using Guard = qx::testing::GuardedBuffer::Guard;
  qx::fuzzing::Require(DifferingVariant(shape, scale, value, Guard::kEnd).empty());
  return 0;
}
