// The host's own share of a run of the correlation kernel: everything but the transfer copies and
// the kernel's time. The rival is the one-shot function, which prepares everything in each call.
#include <glog/logging.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

#include "bench/interleaved.h"
#include "qxtools/emulated_board.h"
#include "qxtools/fpga_correlation.h"

namespace {

using qx::emulated_board::GetStatus;
using qx::emulated_board::Status;
using qx::utils::image::Kernel_FPGA;
using velkar::vision::ImageFrameImpl;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr int kRuns = 201;

struct Share {
  double p10, median, p90;  // microseconds
};

Share Measure(const std::function<void()>& run) {
  std::vector<double> shares;
  for (int i = 0; i < kRuns; ++i) {
    const Status before = GetStatus();
    const auto start = std::chrono::steady_clock::now();
    run();
    const Microseconds took = std::chrono::steady_clock::now() - start;
    const Status after = GetStatus();
    const Microseconds apart =
        (after.kernel_time - before.kernel_time) + (after.transfer_time - before.transfer_time);
    shares.push_back((took - apart).count());
  }
  std::sort(shares.begin(), shares.end());
  return {shares[kRuns / 10], shares[kRuns / 2], shares[kRuns * 9 / 10]};
}

double MedianSleep() {
  std::vector<double> sleeps;
  for (int i = 0; i < kRuns; ++i) {
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::microseconds(100));
    sleeps.push_back(Microseconds(std::chrono::steady_clock::now() - start).count());
  }
  return qx::bench::Median(sleeps);
}

}  // namespace

int main(int, char** argv) {
  FLAGS_minloglevel = google::ERROR;
  google::InitGoogleLogging(argv[0]);
  const qx::emulated_board::Geometry g;
  const std::size_t pixels = std::size_t{g.height} * g.width;
  std::vector<std::uint8_t> left(pixels * g.channels, 3), right(left), cost(pixels * g.disparities);
  const auto frame = [&](std::vector<std::uint8_t>& bytes, std::uint32_t channels) {
    return ImageFrameImpl::Create(kQXPixelFormatUint8, bytes.data(), g.height, g.width, channels);
  };
  const auto l = frame(left, g.channels), r = frame(right, g.channels);
  const auto out = frame(cost, g.disparities);

  std::printf("host share of a run, %ux%ux%u D%u, %d runs\n", g.height, g.width, g.channels,
              g.disparities, kRuns);
  std::printf("%-34s %12s %12s %12s\n", "", "10 % us", "median us", "90 % us");
  Share object{};
  {
    Kernel_FPGA kernel(0, static_cast<int>(left.size()), static_cast<int>(cost.size()));
    object = Measure([&] { kernel.CostVolume_FPGA(l.get(), r.get(), out.get()); });
  }
  const Share one_shot = Measure([&] {
    qx::utils::image::CostVolume_FPGA(l.get(), r.get(), out.get(),
                                      qx::utils::image::kDefaultXclbinPath, "", 0);
  });
  std::printf("%-34s %12.1f %12.1f %12.1f\n", "Kernel_FPGA", object.p10, object.median, object.p90);
  std::printf("%-34s %12.1f %12.1f %12.1f\n", "CostVolume_FPGA", one_shot.p10, one_shot.median,
              one_shot.p90);
  std::printf("%-34s %12s %12.1f\n", "one-shot / object", "", one_shot.median / object.median);
  // The protocol, and one polling interval: what a sleep of 100 microseconds takes here.
  const double interval = MedianSleep();
  std::printf("object within 50 us + one polling interval (%.1f us): %s\n", interval,
              object.median < 50 + interval ? "yes" : "NO");
  return 0;
}
