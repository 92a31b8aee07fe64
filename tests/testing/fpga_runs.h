// A stereo pair of random maps, and the three ways of running the correlation kernel on it.
#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "qxtools/cost_volume.h"
#include "qxtools/emulated_board.h"
#include "qxtools/fpga_correlation.h"
#include "tests/testing/error_of.h"

namespace qx::utils::image {

enum class Way { kObject, kOneShot, kOld };
constexpr Way kWays[] = {Way::kObject, Way::kOneShot, Way::kOld};

inline const char* NameOf(Way way) {
  return way == Way::kObject ? "Kernel_FPGA" : way == Way::kOneShot ? "one-shot" : "old_one-shot";
}

class StereoMaps {
 public:
  using Frame = velkar::vision::ImageFrameImpl;
  using Bytes = std::vector<std::uint8_t>;

  explicit StereoMaps(const emulated_board::Geometry& g, unsigned seed = 1)
      : geometry(g),
        left_bytes(std::size_t{g.height} * g.width * g.channels),
        right_bytes(left_bytes.size()),
        cost(std::size_t{g.height} * g.width * g.disparities, 0xA5) {
    std::mt19937 random(seed);
    for (auto* map : {&left_bytes, &right_bytes}) {
      for (auto& byte : *map) byte = static_cast<std::uint8_t>(random());
    }
  }

  int input_size() const { return static_cast<int>(left_bytes.size()); }
  int output_size() const { return static_cast<int>(cost.size()); }

  // The whole way: whatever has to be opened is opened and released again.
  void Run(Way way, const char* unit = kDefaultCuName, const char* container = kDefaultXclbinPath,
           int device = 0) {
    if (way == Way::kObject) {
      Kernel_FPGA kernel(device, input_size(), output_size());
      RunOn(kernel);
    } else {
      const auto one_shot = way == Way::kOneShot ? CostVolume_FPGA : CostVolume_FPGA_old;
      one_shot(left.get(), right.get(), output.get(), container, unit, device);
    }
  }
  void RunOn(Kernel_FPGA& kernel) { kernel.CostVolume_FPGA(left.get(), right.get(), output.get()); }

  // The same. Returns: the error, empty when there was none.
  template <typename... Arguments>
  std::string ErrorOf(Way way, const Arguments&... arguments) {
    return testing::ErrorOf([&] { Run(way, arguments...); });
  }

  // What the processor computes.
  Bytes Expected() const {
    Bytes bytes(cost.size());
    const auto frame = FrameOf(bytes, geometry.disparities);
    frame->scale = output->scale;
    CostVolume(left.get(), right.get(), frame.get());
    return bytes;
  }
  std::shared_ptr<Frame> FrameOf(Bytes& bytes, std::uint32_t channels) const {
    return Frame::Create(kQXPixelFormatUint8, bytes.data(), geometry.height, geometry.width,
                         channels);
  }

  const emulated_board::Geometry geometry;
  Bytes left_bytes, right_bytes, cost;
  std::shared_ptr<Frame> left = FrameOf(left_bytes, geometry.channels),
                         right = FrameOf(right_bytes, geometry.channels),
                         output = FrameOf(cost, geometry.disparities);
};

// Settings of a board for small maps whose runs end before the first look at the control word;
// undone at the end of the scope, along with every fault.
class BoardScope {
 public:
  explicit BoardScope(const emulated_board::Geometry& geometry = {2, 8, 32, 4},
                      bool ends_at_once = true) {
    settings.geometry = geometry;
    settings.ends_at_once = ends_at_once;
    Apply();
  }
  ~BoardScope() {
    emulated_board::ClearFaults();
    emulated_board::EndHungRun();
    emulated_board::SetSettings({});
    SetKernelTimeLimit(std::chrono::seconds(10));
  }
  BoardScope(const BoardScope&) = delete;
  BoardScope& operator=(const BoardScope&) = delete;

  void Apply() const { emulated_board::SetSettings(settings); }

  emulated_board::Settings settings;
};

}  // namespace qx::utils::image
