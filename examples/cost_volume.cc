// Finds the disparity of a random texture that was shifted by five pixels: cost_volume
#include <qxtools/cost_volume.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <random>
#include <vector>

int main() {
  constexpr std::uint32_t kHeight = 48, kWidth = 64, kChannels = 32, kDisparities = 16, kShift = 5;
  std::mt19937 random(1);
  std::vector<std::uint8_t> left(std::size_t{kHeight} * kWidth * kChannels), right(left.size());
  std::vector<std::uint8_t> cost(std::size_t{kHeight} * kWidth * kDisparities);

  // What the left camera sees at column x, the right one sees at column x - shift.
  for (auto& value : left) value = static_cast<std::uint8_t>(random());
  std::copy(left.begin() + std::ptrdiff_t{kShift} * kChannels, left.end(), right.begin());

  using velkar::vision::ImageFrameImpl;
  const auto format = QXPixelFormat::kQXPixelFormatUint8;
  const auto l = ImageFrameImpl::Create(format, left.data(), kHeight, kWidth, kChannels);
  const auto r = ImageFrameImpl::Create(format, right.data(), kHeight, kWidth, kChannels);
  const auto out = ImageFrameImpl::Create(format, cost.data(), kHeight, kWidth, kDisparities);
  out->scale = 1.0F / 128;  // brings the mean product of two values into 8 bits
  qx::utils::image::CostVolume(l.get(), r.get(), out.get());

  // The best disparity of a pixel is the one with the largest of its adjacent costs.
  int right_answers = 0, pixels = 0;
  for (std::uint32_t y = 0; y < kHeight; ++y) {
    for (std::uint32_t x = kDisparities; x < kWidth; ++x, ++pixels) {
      const auto* costs = reinterpret_cast<const std::int8_t*>(cost.data()) +
                          (std::size_t{y} * kWidth + x) * kDisparities;
      right_answers += std::max_element(costs, costs + kDisparities) - costs == kShift ? 1 : 0;
    }
  }
  std::printf("%d of %d pixels have disparity %u\n", right_answers, pixels, kShift);
  return right_answers > pixels * 9 / 10 ? 0 : 1;
}
