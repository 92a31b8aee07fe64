#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <thread>

#include "qx_utils/ffmpeg_video_decoder/decoded_frame.h"
#include "qx_utils/image/ffmpeg/planes.h"
#include "qxtools/ffmpeg_media_proc.h"
#include "tests/testing/guarded_buffer.h"
#include "tests/testing/log_capture.h"
#include "tests/testing/test.h"
#include "vision/image_frame_fields.h"

namespace qx::utils::image {
namespace {

using engine::Plane;
using engine::Planes;
using ffmpeg::FrameLayout;
using ::testing::ElementsAre;
using velkar::vision::ImageFrameFields;
using velkar::vision::ImageFrameImpl;
using Frame = MediaProc::Frame;
using Box = MediaProc::Box;

constexpr QXPixelFormat kFormats[] = {
    kQXPixelFormatGray8,  kQXPixelFormatGray16,   kQXPixelFormatNV12,
    kQXPixelFormatNV21,   kQXPixelFormatYUV420P,  kQXPixelFormatRGB888,
    kQXPixelFormatBGR888, kQXPixelFormatARGB8888, kQXPixelFormatBGRA8888};

MediaProc& Engine() {
  static const std::shared_ptr<MediaProc> engine = CreateFfmpegMediaProc();
  return *engine;
}

Planes PlanesOf(const Frame& frame) { return engine::PlanesOf(engine::ViewOf(frame)); }

// Random samples of first .. last that end at a protected page. 4:2:0 pictures have rows with
// gaps, as a decoder's.
Frame NewFrame(QXPixelFormat format, std::size_t width, std::size_t height, int first = 0,
               int last = 255, const engine::YuvCoding& coding = {}) {
  const Frame model = engine::NewPicture(format, width, height, coding);
  const FrameLayout* tight = ffmpeg::LayoutOf(model);
  FrameLayout layout = tight != nullptr ? *tight : FrameLayout{};
  std::uint32_t bytes = tight != nullptr ? 0 : model->DataSize();
  for (std::uint32_t i = 0; i < layout.plane_count; ++i) {
    FrameLayout::Plane& plane = layout.planes[i];
    plane.offset = bytes + 3;
    plane.pitch += 5;
    bytes = plane.offset + plane.pitch * (plane.rows - 1) + plane.row_bytes;
  }
  const auto memory = std::make_shared<testing::GuardedBuffer>(bytes);
  std::mt19937 random(static_cast<unsigned>(width * 31 + height));
  std::uniform_int_distribution<int> samples(first, last);
  std::generate_n(memory->data(), bytes,
                  [&] { return static_cast<std::uint8_t>(samples(random)); });
  auto frame = std::make_unique<ImageFrameImpl>(static_cast<const ImageFrameImpl&>(*model));
  ImageFrameFields::SetData(*frame, memory->data(), bytes);
  ImageFrameFields::SetHolder(*frame, memory);
  if (tight == nullptr) return frame;
  return ffmpeg::WithLayout(std::move(frame), layout);
}

double Sample(const Plane& plane, int x, int y, int value) {
  const std::uint8_t* at = plane.Row(y) + (x * plane.values + value) * plane.value_bytes;
  if (plane.value_bytes == 1) return *at;
  std::uint16_t word = 0;
  std::memcpy(&word, at, sizeof word);
  return word;
}

// The mean over what one output covers, or the cubic kernel around its centre.
double Filtered(int output, int source, int target, const std::function<double(int)>& input) {
  const double span = static_cast<double>(source) / target, begin = output * span;
  double sum = 0;
  for (int i = static_cast<int>(begin) - 3; i < begin + span + 3; ++i) {
    const double d = std::abs(begin + span / 2 - 0.5 - i);
    const double cubic = d < 1   ? 1.4 * d * d * d - 2.4 * d * d + 1
                         : d < 2 ? 0.6 * (-d * d * d + 5 * d * d - 8 * d + 4)
                                 : 0;
    const double covered = std::min(i + 1.0, begin + span) - std::max<double>(i, begin);
    const double weight = target < source ? std::max(covered, 0.0) / span : cubic;
    if (weight != 0) sum += weight * input(std::clamp(i, 0, source - 1));
  }
  return sum;
}

// In units of an 8-bit step.
double WorstError(const Plane& source, const Plane& result) {
  double worst = 0;
  for (int x = 0; x < result.width; x += 1 + result.width / 40) {
    for (int value = 0; value < result.values; ++value) {
      std::vector<double> column(static_cast<std::size_t>(source.height));
      for (int y = 0; y < source.height; ++y) {
        column[static_cast<std::size_t>(y)] = Filtered(
            x, source.width, result.width, [&](int i) { return Sample(source, i, y, value); });
      }
      for (int y = 0; y < result.height; y += 1 + result.height / 40) {
        const double expected = Filtered(y, source.height, result.height, [&](int i) {
          return column[static_cast<std::size_t>(i)];
        });
        worst = std::max(worst, std::abs(expected - Sample(result, x, y, value)));
      }
    }
  }
  return result.value_bytes == 1 ? worst : worst / 257;
}

TEST(MediaResize, MeansWhereItShrinksAndCubicWhereItGrows) {
  struct {
    std::size_t from[2], to[2];
    double tolerance;  // libswscale treats the cubic kernel at the borders in its own way
  } const cases[] = {
      {{1, 1}, {64, 48}, 1e-9},   {{64, 48}, {1, 1}, 0.6},       {{2, 2}, {1, 1}, 1},
      {{3, 3}, {2, 2}, 1},        {{6, 4}, {4, 2}, 1},           {{7, 5}, {3, 2}, 1},
      {{2, 2}, {40, 30}, 1.1},    {{6, 6}, {51, 21}, 1.1},       {{17, 10}, {9, 33}, 1.6},
      {{64, 64}, {32, 96}, 1.6},  {{20, 300}, {300, 20}, 2},     {{40, 40}, {333, 127}, 5},
      {{192, 108}, {64, 36}, 1},  {{193, 109}, {65, 37}, 1},     {{100, 100}, {99, 99}, 1},
      {{2000, 4}, {20, 4}, 1},    {{300, 2}, {40000, 2}, 1},     {{40000, 2}, {300, 2}, 1},
      {{33, 5}, {33, 3000}, 1.1}, {{2, 16384}, {2, 16383}, 2.6}, {{127, 3}, {65, 3}, 1}};
  for (const auto& c : cases) {
    for (const QXPixelFormat format : kFormats) {
      const Frame source = NewFrame(format, c.from[0], c.from[1], 64, 191);
      const Frame result = Engine().Resize(source, c.to[0], c.to[1]);
      ASSERT_NE(result, nullptr);
      ASSERT_THAT((std::array{result->Width(), result->Height()}), ElementsAre(c.to[0], c.to[1]));
      const Planes from = PlanesOf(source), to = PlanesOf(result);
      for (std::size_t i = 0; i < static_cast<std::size_t>(to.count); ++i) {
        EXPECT_LE(WorstError(from.plane[i], to.plane[i]), c.tolerance)
            << c.from[0] << " x " << c.from[1] << " to " << c.to[0] << " x " << c.to[1]
            << ", format " << format << ", plane " << i;
      }
    }
  }
}

void ExpectPart(const Frame& picture, const Frame& part, const std::array<int, 2>& first,
                const std::array<int, 2>& count) {
  EXPECT_THAT((std::array{part->Width(), part->Height()}), ElementsAre(count[0], count[1]));
  const Planes from = PlanesOf(picture), to = PlanesOf(part);
  for (std::size_t i = 0; i < static_cast<std::size_t>(to.count); ++i) {
    const int shift = i > 0 ? 1 : 0, x = first[0] >> shift, y = first[1] >> shift;
    for (int row = 0; row < to.plane[i].height; ++row) {
      const Plane& whole = from.plane[i];
      const std::uint8_t* expected = whole.Row(y + row) + x * whole.values * whole.value_bytes;
      EXPECT_EQ(std::memcmp(to.plane[i].Row(row), expected,
                            static_cast<std::size_t>(to.plane[i].RowBytes())),
                0);
    }
  }
}

TEST(MediaCrop, RoundsCornersToPixelsAndClips) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
  // From two corners along an axis of 11 pixels: the first pixel and the number, 0 for no frame;
  // then both in 4:2:0.
  struct {
    float from, to;
    int first, count, first_420, count_420;
  } const cases[] = {{0, 10, 0, 11, 0, 11},
                     {3, 3, 3, 1, 2, 2},
                     {2, 5, 2, 4, 2, 4},
                     {1, 4, 1, 4, 0, 6},
                     {2.49F, 4.5F, 2, 4, 2, 4},
                     {2.5F, 3.49F, 3, 1, 2, 2},
                     {0.49999997F, 0.5F, 0, 2, 0, 2},
                     {-0.5F, -0.49F, 0, 1, 0, 2},
                     {-9, 1, 0, 2, 0, 2},
                     {6.4F, 1e30F, 6, 5, 6, 5},
                     {-kInfinity, kInfinity, 0, 11, 0, 11},
                     {3.4F, 2.6F, 3, 1, 2, 2},
                     {5, 4, 0, 0, 0, 0},
                     {-9, -0.51F, 0, 0, 0, 0},
                     {10.5F, 20, 0, 0, 0, 0},
                     {kInfinity, kInfinity, 0, 0, 0, 0},
                     {kNan, 5, 0, 0, 0, 0},
                     {1, kNan, 0, 0, 0, 0}};
  for (const QXPixelFormat format : kFormats) {
    for (const std::size_t axis : {0U, 1U}) {
      const Frame picture = axis == 0 ? NewFrame(format, 11, 6) : NewFrame(format, 6, 11);
      for (const auto& c : cases) {
        const Box box = axis == 0 ? Box(c.from, 2, c.to, 3) : Box(2, c.from, 3, c.to);
        const auto parts = Engine().Crop(picture, {box}, 0, 0, false);
        ASSERT_EQ(parts.size(), 1U);
        std::array<int, 2> first = {2, 2}, count = {2, 2};
        first[axis] = engine::IsYuv420(format) ? c.first_420 : c.first;
        count[axis] = engine::IsYuv420(format) ? c.count_420 : c.count;
        ASSERT_EQ(parts[0] != nullptr, count[axis] > 0) << c.from << " .. " << c.to;
        if (parts[0] != nullptr) ExpectPart(picture, parts[0], first, count);
      }
    }
  }
}

TEST(MediaCrop, AnswersEveryBoxAndScalesTheOnesWithPixels) {
  testing::LogCapture log;
  const Frame picture = NewFrame(kQXPixelFormatRGB888, 40, 30);
  const std::vector<Box> boxes = {Box(4, 5, 23, 20), Box(50, 0, 60, 5), Box(0, 9, 9, 2)};
  const auto parts = Engine().Crop(picture, boxes, 7, 9, true);
  ASSERT_THAT(parts, ElementsAre(::testing::NotNull(), nullptr, nullptr));
  EXPECT_THAT(log.Messages(google::ERROR),
              ElementsAre("Crop: box 1 of 3 (50, 0, 60, 5) has no pixel of the 40 x 30 picture; "
                          "nor have 1 more boxes"));
  const Frame alone = Engine().Crop(picture, {boxes[0]}, 0, 0, false).front();
  const Frame scaled = Engine().Resize(alone, 7, 9);
  EXPECT_EQ(std::memcmp(parts[0]->Data(), scaled->Data(), scaled->DataSize()), 0);
  EXPECT_TRUE(Engine().Crop(picture, {}, 0, 0, false).empty());
  EXPECT_TRUE(Engine().Crop(picture, boxes, 0, 9, true).empty());
  EXPECT_EQ(Engine().Resize(nullptr, 5, 5), nullptr);
  EXPECT_EQ(log.Messages(google::ERROR).size(), 3U);
}

using Values = std::array<double, 4>;  // R, G, B, A, or Y, U, V

Values ValuesAt(const Frame& frame, int x, int y) {
  static const std::map<QXPixelFormat, std::vector<std::pair<std::size_t, int>>> kPlaces = {
      {kQXPixelFormatGray8, {{0, 0}}},
      {kQXPixelFormatGray16, {{0, 0}}},
      {kQXPixelFormatNV12, {{0, 0}, {1, 0}, {1, 1}}},
      {kQXPixelFormatNV21, {{0, 0}, {1, 1}, {1, 0}}},
      {kQXPixelFormatYUV420P, {{0, 0}, {1, 0}, {2, 0}}},
      {kQXPixelFormatRGB888, {{0, 0}, {0, 1}, {0, 2}}},
      {kQXPixelFormatBGR888, {{0, 2}, {0, 1}, {0, 0}}},
      {kQXPixelFormatARGB8888, {{0, 1}, {0, 2}, {0, 3}, {0, 0}}},
      {kQXPixelFormatBGRA8888, {{0, 2}, {0, 1}, {0, 0}, {0, 3}}}};
  const Planes planes = PlanesOf(frame);
  Values values{};
  double* next = values.data();
  for (const auto& [plane, value] : kPlaces.at(frame->pixel_format)) {
    const int shift = plane > 0 ? 1 : 0;
    *next++ = Sample(planes.plane[plane], x >> shift, y >> shift, value);
  }
  if (frame->pixel_format == kQXPixelFormatGray16) values[0] = std::floor(values[0] / 257 + 0.5);
  return values;
}

struct Coding {
  engine::YuvCoding code;
  double red, blue, black, luma, chroma;  // Kr, Kb, and the codes of black and of the spans
};

Values YuvOfRgb(const Coding& c, const Values& rgb, const Values& mean) {
  const auto luma = [&](const Values& v) {
    return (c.red * v[0] + (1 - c.red - c.blue) * v[1] + c.blue * v[2]) / 255;
  };
  return {c.black + c.luma * luma(rgb),
          128 + c.chroma * (mean[2] / 255 - luma(mean)) / (2 - 2 * c.blue),
          128 + c.chroma * (mean[0] / 255 - luma(mean)) / (2 - 2 * c.red)};
}

Values RgbOfYuv(const Coding& c, const Values& yuv) {
  const double y = (yuv[0] - c.black) / c.luma;
  const double b = y + (2 - 2 * c.blue) * (yuv[1] - 128) / c.chroma;
  const double r = y + (2 - 2 * c.red) * (yuv[2] - 128) / c.chroma;
  return {255 * r, 255 * (y - c.red * r - c.blue * b) / (1 - c.red - c.blue), 255 * b};
}

// The mean colour of the 2 x 2 pixels around one; pixels past an odd end are those at the end.
Values MeanAround(const Frame& frame, int x, int y) {
  Values mean{};
  const Plane plane = PlanesOf(frame).plane[0];
  for (const int pixel : {0, 1, 2, 3}) {
    const Values v = ValuesAt(frame, std::min(x / 2 * 2 + pixel % 2, plane.width - 1),
                              std::min(y / 2 * 2 + pixel / 2, plane.height - 1));
    for (std::size_t i = 0; i < 3; ++i) mean[i] += v[i] / 4;
  }
  return mean;
}

enum Kind { kGrey, kYuv, kRgb };
Kind KindOf(QXPixelFormat format) {
  if (format <= kQXPixelFormatGray16) return kGrey;
  return format <= kQXPixelFormatYUV420P ? kYuv : kRgb;
}

Values Expected(const Coding& coding, const Frame& source, QXPixelFormat format, int x, int y) {
  static const Coding kGreyCoding = {{}, 0.299, 0.114, 0, 255, 255};
  const Values v = ValuesAt(source, x, y);
  const Kind from = KindOf(source->pixel_format), to = KindOf(format);
  Values result = v;
  if (from == kGrey && to == kYuv) result = {coding.black + coding.luma * v[0] / 255, 128, 128};
  if (from == kGrey && to == kRgb) result = {v[0], v[0], v[0]};
  if (from == kYuv && to == kGrey) result = {255 * (v[0] - coding.black) / coding.luma};
  if (from == kYuv && to == kRgb) result = RgbOfYuv(coding, v);
  if (from == kRgb && to == kYuv) result = YuvOfRgb(coding, v, MeanAround(source, x, y));
  if (from == kRgb && to == kGrey) result = {YuvOfRgb(kGreyCoding, v, v)[0]};
  if (PlanesOf(source).plane[0].values < 4) result[3] = format == kQXPixelFormatBGRA8888 ? 255 : 0;
  if (format < kQXPixelFormatARGB8888) result[3] = 0;
  for (double& value : result) value = std::clamp(value, 0.0, 255.0);
  return result;
}

TEST(MediaCvtColor, FollowsTheFormulasOfTheStandardsBetweenAllFormats) {
  const Coding limited = {{false, 2}, 0.299, 0.114, 16, 219, 224};
  const Coding full = {{true, 5}, 0.299, 0.114, 0, 255, 255};
  const Coding bt709 = {{false, 1}, 0.2126, 0.0722, 16, 219, 224};
  for (const Coding& coding : {limited, full, bt709}) {
    for (const QXPixelFormat from : kFormats) {
      if (KindOf(from) != kYuv && coding.code.matrix != 2) continue;
      for (const QXPixelFormat to : kFormats) {
        const Frame source = NewFrame(from, 75, 9, 0, 255, coding.code);
        const Frame result = Engine().CvtColor(source, to);
        ASSERT_NE(result, nullptr);
        ASSERT_EQ(result->pixel_format, to);
        EXPECT_NE(result->Data(), source->Data());
        const double tolerance = KindOf(from) == KindOf(to) ? 0 : 0.6;
        for (int x = 0; x < 75; ++x) {
          for (int y = 0; y < 9; ++y) {
            const Values expected = Expected(coding, source, to, x, y), v = ValuesAt(result, x, y);
            for (std::size_t i = 0; i < 4; ++i) {
              ASSERT_NEAR(v[i], expected[i], tolerance)
                  << from << " to " << to << " at " << x << ", " << y << ", value " << i;
            }
          }
        }
      }
    }
  }
}

TEST(MediaCvtColor, KeepsSixteenBitsAndTheCodingOfItsSource) {
  const Frame deep = NewFrame(kQXPixelFormatGray16, 5, 3);
  EXPECT_EQ(std::memcmp(Engine().CvtColor(deep, kQXPixelFormatGray16)->Data(), deep->Data(), 30),
            0);
  const Frame video = NewFrame(kQXPixelFormatNV12, 8, 8, 0, 255, {true, 1});
  const Frame planar = Engine().CvtColor(Engine().Resize(video, 4, 4), kQXPixelFormatYUV420P);
  EXPECT_TRUE(ffmpeg::LayoutOf(planar)->full_range);
  EXPECT_EQ(ffmpeg::LayoutOf(planar)->matrix_coefficients, 1);
  EXPECT_EQ(Engine().CvtColor(video, kQXPixelFormatUint8), nullptr);
}

TEST(MediaEngine, GivesFourThreadsTheResultsOfOne) {
  const Frame picture = NewFrame(kQXPixelFormatYUV420P, 320, 180);
  const Frame rgb = NewFrame(kQXPixelFormatRGB888, 99, 77);
  std::array<std::string, 5> bytes;
  const auto run = [&](std::string& all) {
    for (std::size_t size = 100; size < 340; size += 10) {
      std::vector<Frame> results = Engine().Crop(rgb, {Box(3, 4, 60, 50)}, size, 40, true);
      results.push_back(Engine().Resize(picture, size, size / 2));
      results.push_back(Engine().CvtColor(results[1], kQXPixelFormatBGRA8888));
      for (const Frame& frame : results)
        all.append(frame->Data(), frame->Data() + frame->DataSize());
    }
  };
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < 4; ++i) threads.emplace_back(run, std::ref(bytes[i]));
  for (std::thread& thread : threads) thread.join();
  run(bytes[4]);
  for (std::size_t i = 0; i < 4; ++i) EXPECT_TRUE(bytes[i] == bytes[4]);
}

}  // namespace
}  // namespace qx::utils::image
