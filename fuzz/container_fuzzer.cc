// Container files of the emulated board: whatever is accepted can be loaded, and a run on it gives
// the processor's costs.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "board/emulated/board.h"
#include "fuzz/require.h"
#include "qxtools/cost_volume.h"
#include "qxtools/emulated_board.h"
#include "qxtools/fpga_correlation.h"

namespace {

using qx::fuzzing::Require;
using velkar::vision::ImageFrameImpl;

constexpr std::size_t kMostBytes = 1 << 16;  // of a buffer: larger kernels are loaded, not run

void RunOnce(const qx::board::Container& container, const std::string& path) {
  const auto& g = container.geometry;
  const std::size_t pixels = std::size_t{g.height} * g.width;
  if (pixels * g.channels > kMostBytes || pixels * g.disparities > kMostBytes) return;
  std::vector<std::uint8_t> input(pixels * g.channels), cost(pixels * g.disparities);
  for (std::size_t i = 0; i < input.size(); ++i) input[i] = static_cast<std::uint8_t>(i * i + 77);
  std::vector<std::uint8_t> expected(cost.size());
  const auto frame = [&g](std::vector<std::uint8_t>& bytes, std::uint32_t channels) {
    return ImageFrameImpl::Create(kQXPixelFormatUint8, bytes.data(), g.height, g.width, channels);
  };
  const auto maps = frame(input, g.channels);
  const auto result = frame(cost, g.disparities), reference = frame(expected, g.disparities);
  qx::utils::image::CostVolume_FPGA_old(maps.get(), maps.get(), result.get(), path,
                                        container.kernel + ":{" + container.instance + '}', 0);
  qx::utils::image::CostVolume(maps.get(), maps.get(), reference.get());
  Require(cost == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  qx::board::Container container;
  try {
    container = qx::board::ParseContainer(text);
  } catch (const std::runtime_error&) {
    return 0;
  }
  static const bool ready = [] {
    qx::emulated_board::Settings settings;
    settings.ends_at_once = true;
    qx::emulated_board::SetSettings(settings);
    return true;
  }();
  static const int file = memfd_create("container", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  Require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
  Require(ready && qx::board::Board::Get().Load(path) != 0);
  RunOnce(container, path);
  return 0;
}
