// A stereo pair of random maps, and the three ways of running the correlation kernel on it.
#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "qxtools/cost_volume.h"
#include "qxtools/emulated_board.h"
#include "qxtools/fpga_correlation.h"

namespace qx::utils::image {

constexpr char kContainerPath[] = "/lib/firmware/xilinx/k26brannoc/k26brannoc.xclbin";
constexpr char kUnitName[] = "Corr:{Corr_1}";

enum class Way { kObject, kOneShot, kOld };
constexpr Way kWays[] = {Way::kObject, Way::kOneShot, Way::kOld};

inline const char* NameOf(Way way) {
  return way == Way::kObject ? "Kernel_FPGA" : way == Way::kOneShot ? "one-shot" : "old one-shot";
}

class StereoMaps {
 public:
  using Frame = velkar::vision::ImageFrameImpl;

  explicit StereoMaps(const emulated_board::Geometry& g, unsigned seed = 1) {
    const std::size_t pixels = std::size_t{g.height} * g.width;
    std::mt19937 random(seed);
    for (auto* map : {&left_bytes, &right_bytes}) {
      map->resize(pixels * g.channels);
      for (auto& byte : *map) byte = static_cast<std::uint8_t>(random());
    }
    cost.assign(pixels * g.disparities, 0xA5);
    left = Frame::Create(kQXPixelFormatUint8, left_bytes.data(), g.height, g.width, g.channels);
    right = Frame::Create(kQXPixelFormatUint8, right_bytes.data(), g.height, g.width, g.channels);
    output = Frame::Create(kQXPixelFormatUint8, cost.data(), g.height, g.width, g.disparities);
  }

  void SetScales(float l, float r, float o) {
    left->scale = l;
    right->scale = r;
    output->scale = o;
  }

  int input_size() const { return static_cast<int>(left_bytes.size()); }
  int output_size() const { return static_cast<int>(cost.size()); }

  // The whole way: whatever has to be opened is opened and released again.
  void Run(Way way, const char* unit = kUnitName, const char* container = kContainerPath,
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

  // What the processor computes.
  std::vector<std::uint8_t> Expected() const {
    std::vector<std::uint8_t> bytes(cost.size());
    const auto frame = Frame::Create(kQXPixelFormatUint8, bytes.data(), output->Height(),
                                     output->Width(), output->Channel());
    frame->scale = output->scale;
    CostVolume(left.get(), right.get(), frame.get());
    return bytes;
  }

  std::vector<std::uint8_t> left_bytes, right_bytes, cost;
  std::shared_ptr<Frame> left, right, output;
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
