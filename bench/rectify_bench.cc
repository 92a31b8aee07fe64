// Measures rectification against OpenCV's remap, in one process on the same maps and pictures:
// time, for one and for two threads and each instruction set, and how far maps and pictures differ.
//
// usage: rectify_bench [ROUNDS] [CALIBRATION... [LEFT RIGHT]...]
//
// CALIBRATION is one .yml or .yaml file or two, as for ReadStereoCalibration(); LEFT and RIGHT are
// raw pictures. With 0 rounds only results are compared. Times are those of a typical lens on
// noise, in usual sizes.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <string>
#include <vector>

#include "bench/interleaved.h"
#include "bench/rectify_opencv.h"
#include "qx_utils/image/kernels/cpu_features.h"
#include "qx_utils/stereo/camera/rectification_table.h"
#include "qx_utils/stereo/frames.h"
#include "qx_utils/stereo/kernels/remap.h"
#include "qxtools/stereo_rectifier.h"

namespace qx::bench {
namespace {

using namespace utils::stereo;  // NOLINT(google-build-using-namespace): a program of one page

using utils::stereo::FramePtr;

// Two cameras of `width` x `height` pixels that are turned by a few degrees, with lenses that bend
// the corners by about a tenth of the width.
StereoCalibration TypicalCameras(int width, int height, DistortionModel model) {
  const double f = 0.84 * width;
  const bool fisheye = model == DistortionModel::kEquidistant;
  CameraCalibration camera;
  camera.camera_matrix = {f, 0, 0.51 * width, 0, 0.99 * f, 0.49 * height, 0, 0, 1};
  camera.distortion_model = model;
  camera.distortion = {-0.26, -0.05, 0.001, -0.002, 0.02, 0.01, 0.02, 0.01, 1e-3, -1e-3, 2e-3};
  if (fisheye) camera.distortion = {-0.02, 0.01, -0.004, 0.001};
  StereoCalibration cameras;
  cameras.left = cameras.right = camera;
  if (!fisheye) cameras.right.distortion[12] = 0.01;
  const double angle = 0.03;
  cameras.rotation = {
      std::cos(angle), -std::sin(angle), 0, std::sin(angle), std::cos(angle), 0, 0, 0, 1};
  cameras.translation = {-0.12, 0.003, -0.002};
  ComputeRectification(cameras, width, height);
  return cameras;
}

FramePtr Noise(int width, int height, std::size_t channels) {
  std::mt19937 random(1);
  auto frame =
      NewFrame(channels == 3 ? kQXPixelFormatRGB888 : kQXPixelFormatGray8,
               {static_cast<std::size_t>(height), static_cast<std::size_t>(width), channels}, 1);
  std::generate_n(frame->Data(), frame->DataSize(),
                  [&] { return static_cast<std::uint8_t>(random()); });
  return frame;
}

PictureSize SizeOf(const FramePtr& frame) { return {frame->Width(), frame->Height()}; }

void RunKernel(const RemapKernel& kernel, const RemapTable& table, const FramePtr& raw,
               std::uint8_t* result) {
  const std::size_t channels = raw->Channel();
  RemapPicture(channels == 3 ? kernel.colour : kernel.grey, table.View(),
               {raw->Data(), raw->Width() * channels, raw->Width(), raw->Height()}, result);
}

// Where a table takes a covered pixel from.
PicturePoint PlaceOf(const RemapView& map, std::size_t at) {
  const std::uint32_t group = map.groups[at / kRemapGroup];
  const std::uint8_t place = map.places[at];
  std::size_t column = (group & 0xFFFFU) + place % kWindowColumns;
  std::size_t row = (group >> 16U) + place / kWindowColumns;
  if ((group & kScattered) != 0) {
    const std::size_t first = std::size_t{group & ~kScattered} * kRemapGroup;
    const SourcePosition& position = map.scattered[first + at % kRemapGroup];
    column = static_cast<std::size_t>(position.x), row = static_cast<std::size_t>(position.y);
  }
  return {static_cast<double>(column) + map.fx[at] / double{kRemapUnit},
          static_cast<double>(row) + map.fy[at] / double{kRemapUnit}};
}

void CompareMaps(const std::string& name, const CameraCalibration& camera,
                 const PictureSize& size) {
  const RemapTable table = RectificationTable(camera, size);
  const auto places =
      OpenCvPlaces(camera, static_cast<int>(size.width), static_cast<int>(size.height));
  if (places.empty()) return;
  const RemapView map = table.View();
  std::size_t covered = 0, windows = 0;
  double largest = 0;
  for (std::size_t y = 0; y < size.height; ++y) {
    for (std::size_t x = 0; x < size.width; ++x) {
      if (!table.IsCovered(x, y)) continue;
      const float* const other = places.data() + 2 * (y * size.width + x);
      const PicturePoint ours = PlaceOf(map, y * map.stride + x);
      largest = std::max(
          {largest, std::fabs(ours.x - double{other[0]}), std::fabs(ours.y - double{other[1]})});
      ++covered;
      windows += (map.groups[(y * map.stride + x) / kRemapGroup] & kScattered) == 0 ? 1 : 0;
    }
  }
  const auto percent = [&](std::size_t count, std::size_t of) {
    return 100.0 * static_cast<double>(count) / static_cast<double>(of);
  };
  std::printf(
      "%s, %zu x %zu: largest difference of the maps %.4f pixel; %.1f %% covered, of these "
      "%.1f %% with windows\n",
      name.c_str(), size.width, size.height, largest, percent(covered, size.width * size.height),
      percent(windows, covered));
}

void ComparePictures(const std::string& path, const CameraCalibration& camera, bool colour) {
  const FramePtr raw = ReadPicture(path, colour);
  const RemapTable table = RectificationTable(camera, SizeOf(raw));
  std::vector<std::uint8_t> ours(raw->DataSize());
  RunKernel(kRemapScalar, table, raw, ours.data());
  for (const RectifyRival& rival : OpenCvRemaps(camera, raw)) {
    rival.run();
    const std::uint8_t* const theirs = rival.result();
    std::size_t close = 0;
    int largest = 0;
    for (std::size_t i = 0; i < ours.size(); ++i) {
      const int difference = std::abs(ours[i] - theirs[i]);
      close += difference <= 1 ? 1 : 0;
      largest = std::max(largest, difference);
    }
    std::printf("%s, %s, %s: %.4f %% within 1 level, the largest difference %d\n", path.c_str(),
                colour ? "colour" : "grey", rival.name.c_str(),
                100.0 * static_cast<double>(close) / static_cast<double>(ours.size()), largest);
  }
}

// What takes part: the whole operation, each variant, OpenCV's.
std::vector<Contender> Contenders(const StereoCalibration& cameras, const RemapTable& table,
                                  const FramePtr& raw, std::uint8_t* result) {
  const auto rectifier = std::make_shared<StereoRectifier>(cameras, static_cast<int>(raw->Width()),
                                                           static_cast<int>(raw->Height()));
  std::vector<Contender> contenders = {
      {"RectifyLeft()", [=] { static_cast<void>(rectifier->RectifyLeft(raw)); }}};
  std::size_t count = 0;
  const RemapVariant* const variants = RemapVariants(&count);
  for (std::size_t i = 0; i < count; ++i) {
    if ((variants[i].required & ~utils::internal::SupportedFeatures()) != 0) continue;
    contenders.push_back({variants[i].name, [=, &table, kernel = variants[i].kernel] {
                            RunKernel(*kernel, table, raw, result);
                          }});
  }
  for (const RectifyRival& rival : OpenCvRemaps(cameras.left, raw)) {
    contenders.push_back({rival.name, rival.run});
  }
  return contenders;
}

void CompareTimes(const PictureSize& size, std::size_t channels, int threads, int rounds) {
  const int width = static_cast<int>(size.width), height = static_cast<int>(size.height);
  const StereoCalibration cameras = TypicalCameras(width, height, DistortionModel::kPlumbBob);
  const RemapTable table = RectificationTable(cameras.left, size);
  const FramePtr raw = Noise(width, height, channels);
  const Pages result = MakePages(raw->DataSize());
  omp_set_num_threads(threads);
  SetOpenCvThreads(threads);
  const auto contenders = Contenders(cameras, table, raw, result.get());
  Rounds how;
  how.count = rounds;
  how.warm_up = 1;
  how.untimed_runs = 3;
  how.seconds = 0.01;  // also gives threads that wait awake the time to go to sleep
  how.one_core = false;
  const std::vector<Times> times = RunInterleaved(contenders, how);
  // With one thread, other programs do not count; with two, waiting awake would.
  const auto of = [&](std::size_t i) {
    return threads == 1 ? times[i].processor : times[i].elapsed;
  };
  std::printf("\n%zu x %zu, %s, %d thread%s, medians of %d rounds\n", size.width, size.height,
              channels == 3 ? "colour" : "grey", threads, threads == 1 ? "" : "s", rounds);
  std::printf("  %-24s %8s %12s %12s\n", "", "ms", "of fixed's", "of float's");
  for (std::size_t i = 0; i < contenders.size(); ++i) {
    std::printf("  %-24s %8.3f", contenders[i].name.c_str(), Median(of(i)) * 1e3);
    for (std::size_t rival = contenders.size() - 2; HaveOpenCv() && rival < contenders.size();
         ++rival) {
      std::printf(" %12.2f", MedianRatio(of(i), of(rival)));
    }
    std::printf("\n");
  }
}

void CompareResults(const std::vector<std::string>& calibration,
                    const std::vector<std::string>& pictures) {
  for (const auto& [name, model] : {std::pair("typical lens", DistortionModel::kPlumbBob),
                                    std::pair("fisheye", DistortionModel::kEquidistant)}) {
    for (const PictureSize& size : {PictureSize{640, 480}, PictureSize{1920, 1080}}) {
      const StereoCalibration cameras =
          TypicalCameras(static_cast<int>(size.width), static_cast<int>(size.height), model);
      CompareMaps(std::string(name) + ", left", cameras.left, size);
      CompareMaps(std::string(name) + ", right", cameras.right, size);
    }
  }
  if (calibration.empty() || !HaveOpenCv()) return;
  StereoCalibration cameras = ReadStereoCalibration(calibration);
  for (std::size_t i = 0; i < pictures.size(); ++i) {
    const PictureSize size = SizeOf(ReadPicture(pictures[i], false));
    if (!cameras.has_rectification) {
      ComputeRectification(cameras, static_cast<int>(size.width), static_cast<int>(size.height));
    }
    const CameraCalibration& camera = i % 2 == 0 ? cameras.left : cameras.right;
    CompareMaps(pictures[i], camera, size);
    ComparePictures(pictures[i], camera, false);
    ComparePictures(pictures[i], camera, true);
  }
}

int Run(const std::vector<std::string>& arguments) {
  int rounds = 21;
  std::vector<std::string> calibration, pictures;
  for (const std::string& argument : arguments) {
    if (argument.find_first_not_of("0123456789") == std::string::npos) {
      rounds = std::atoi(argument.c_str());
    } else {
      const bool yaml =
          argument.find(".yml") != std::string::npos || argument.find(".yaml") != std::string::npos;
      (yaml ? calibration : pictures).push_back(argument);
    }
  }
  CompareResults(calibration, pictures);
  if (rounds == 0) return 0;
  for (const std::size_t channels : {std::size_t{1}, std::size_t{3}}) {
    for (const PictureSize& size :
         {PictureSize{640, 480}, PictureSize{1280, 720}, PictureSize{1920, 1080}}) {
      for (const int threads : {1, 2}) CompareTimes(size, channels, threads, rounds);
    }
  }
  return 0;
}

}  // namespace
}  // namespace qx::bench

int main(int argc, char** argv) {
  try {
    return qx::bench::Run({argv + 1, argv + argc});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
