// Computes a cost volume with the correlation kernel and on the processor, and compares: fpga
//
// Without a board the kernel runs on the emulated one.
#include <qxtools/cost_volume.h>
#include <qxtools/emulated_board.h>
#include <qxtools/fpga_correlation.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <random>
#include <vector>

namespace board = qx::emulated_board;
using velkar::vision::ImageFrameImpl;

static int Compare() {
  // The kernel's geometry is fixed in its container; DescribeCorrelationUnit() has just loaded it.
  const auto unit = qx::utils::image::DescribeCorrelationUnit(0);
  const auto g = board::IsEmulated() ? board::GetStatus().geometry : board::Geometry();
  const std::size_t pixels = std::size_t{g.height} * g.width;
  std::vector<std::uint8_t> left(pixels * g.channels), right(left.size());
  std::vector<std::uint8_t> by_kernel(pixels * g.disparities), by_processor(by_kernel.size());
  std::mt19937 random(1);
  for (auto& value : left) value = static_cast<std::uint8_t>(random());
  for (auto& value : right) value = static_cast<std::uint8_t>(random());

  const auto frame = [&g](std::vector<std::uint8_t>& bytes, std::uint32_t channels) {
    return ImageFrameImpl::Create(kQXPixelFormatUint8, bytes.data(), g.height, g.width, channels);
  };
  const auto l = frame(left, g.channels), r = frame(right, g.channels);
  const auto k = frame(by_kernel, g.disparities), p = frame(by_processor, g.disparities);
  k->scale = p->scale = 1.0F / 128;  // a power of two: the kernel's result is then exact

  qx::utils::image::Kernel_FPGA kernel(0, static_cast<int>(left.size()),
                                       static_cast<int>(by_kernel.size()));
  kernel.CostVolume_FPGA(l.get(), r.get(), k.get());
  qx::utils::image::CostVolume(l.get(), r.get(), p.get());

  std::size_t different = 0;
  for (std::size_t i = 0; i < by_kernel.size(); ++i) different += by_kernel[i] != by_processor[i];
  std::printf("%s (%s): %zu of %zu costs differ from the processor's\n", unit.cu_name.c_str(),
              board::IsEmulated() ? "emulated" : "real board", different, by_kernel.size());
  return different == 0 ? 0 : 1;
}

int main() {
  try {
    return Compare();
  } catch (const std::exception& failure) {  // no device, no container, no privileges ...
    std::fprintf(stderr, "fpga: %s\n", failure.what());
    return 1;
  }
}
