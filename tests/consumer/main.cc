// Links one thing of each family, so that a symbol that does not leave the library is noticed.
#include <qxtools/cost_volume.h>
#include <qxtools/image_copy.h>
#include <qxtools/image_frame.h>
#include <qxtools/video.h>

#include <cstdio>
#include <vector>

int main() {
  using velkar::vision::ImageFrameImpl;
  std::vector<std::uint8_t> left(32, 1), right(32, 1), cost(1, 0xEE);
  const auto l = ImageFrameImpl::Create(kQXPixelFormatUint8, left.data(), 1, 1, 32);
  const auto r = ImageFrameImpl::Create(kQXPixelFormatUint8, right.data(), 1, 1, 32);
  const auto out = ImageFrameImpl::Create(kQXPixelFormatUint8, cost.data(), 1, 1, 1);
  qx::utils::image::CostVolume(l.get(), r.get(), out.get());
  const bool demuxer = qx::utils::video::Demuxer::CreateInstance() != nullptr;
  const bool rounded = qx::utils::image::AlignmentHelper(17, 16) == 32;
  std::printf("cost %d, demuxer %d, rounded %d\n", cost[0], demuxer, rounded);
  return cost[0] == 1 && demuxer && rounded ? 0 : 1;
}
