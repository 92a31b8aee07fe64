// RGB and BGR to ARGB against libyuv, libswscale and memcpy of the same traffic (3 bytes read and 4
// written per pixel are 3.5 bytes copied), at three picture sizes, in one run.
//
// libyuv has no single call that gives bytes 0, R, G, B. Two of its ways stand here:
//   same bytes   SplitRGBPlane, then MergeARGBPlane with a plane of zeros: two calls in either
//                order, the fewest that give our result
//   alpha 255    as many calls as our memory order takes when alpha may be 255 instead of 0. It
//                names formats from the highest byte of a little-endian word, so that our order is
//                its "BGRA". RGB: RAWToARGB, then ARGBToBGRA. BGR: RAWToRGBA alone.
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "bench/interleaved.h"
#include "qx_utils/image/kernels/argb.h"
#include "qx_utils/image/kernels/cpu_features.h"
#include "qxtools/argb.h"

#if defined(QXTOOLS_BENCH_LIBYUV)
#include <libyuv.h>
#endif
extern "C" {
#include <libswscale/swscale.h>
}

namespace qx::bench {
namespace {

using utils::image::ArgbRuns;
using utils::image::ArgbVariant;

struct Picture {
  Picture(int w, int h)
      : width(w),
        height(h),
        pixels(static_cast<std::size_t>(w) * static_cast<std::size_t>(h)),
        src(MakePages(3 * pixels)),
        dst(MakePages(4 * pixels)),
        scratch(MakePages(4 * pixels)) {}

  int width, height;
  std::size_t pixels;
  Pages src, dst, scratch;
  std::vector<std::uint8_t> expected;
};

// Runs each contender once and compares what it leaves in `dst`.
void RequireSameBytes(Picture& p, const std::vector<Contender>& contenders, bool with_alpha) {
  for (const Contender& contender : contenders) {
    std::memset(p.dst.get(), 1, 4 * p.pixels);
    contender.run();
    bool same = true;
    for (std::size_t i = 0; i < 4 * p.pixels; ++i) {
      same &= p.dst[i] == p.expected[i] || (i % 4 == 0 && !with_alpha);
    }
    Require(same, contender.name);
  }
}

void Append(std::vector<Contender>& all, const std::vector<Contender>& more) {
  all.insert(all.end(), more.begin(), more.end());
}

std::vector<Contender> Ours(Picture& p, bool bgr) {
  std::vector<Contender> ours = {{"qxtools", [&p, bgr] {
                                    (bgr ? utils::image::CvtColorBGR2ARGB
                                         : utils::image::CvtColorRGB2ARGB)(
                                        p.src.get(), 3 * p.pixels, p.dst.get(), 4 * p.pixels);
                                  }}};
  std::size_t count = 0;
  const ArgbVariant* table = utils::image::ArgbVariants(&count);
  for (std::size_t i = 0; i < count; ++i) {
    const ArgbVariant& variant = table[i];
    if ((variant.required & ~utils::internal::SupportedFeatures()) != 0) continue;
    ours.push_back({std::string("  variant ") + variant.name, [&p, &variant, bgr] {
                      utils::image::WidenToArgb(*variant.kernel,
                                                bgr ? &ArgbRuns::bgr : &ArgbRuns::rgb, p.src.get(),
                                                p.dst.get(), p.pixels);
                    }});
  }
  return ours;
}

#if defined(QXTOOLS_BENCH_LIBYUV)
std::vector<Contender> LibyuvSameBytes(Picture& p, bool bgr) {
  const auto zeros = std::make_shared<std::vector<std::uint8_t>>(p.width);
  return {{"libyuv, same bytes (2 calls)", [&p, bgr, zeros] {
             std::uint8_t* const plane[] = {p.scratch.get(), p.scratch.get() + p.pixels,
                                            p.scratch.get() + 2 * p.pixels};
             libyuv::SplitRGBPlane(p.src.get(), p.width * 3, plane[0], p.width, plane[1], p.width,
                                   plane[2], p.width, p.width, p.height);
             // Its parameters r, g, b, a are bytes 2, 1, 0, 3 of a pixel.
             libyuv::MergeARGBPlane(plane[1], p.width, plane[bgr ? 2 : 0], p.width, zeros->data(),
                                    0, plane[bgr ? 0 : 2], p.width, p.dst.get(), p.width * 4,
                                    p.width, p.height);
           }}};
}

std::vector<Contender> LibyuvAlpha255(Picture& p, bool bgr) {
  if (bgr) {
    return {{"libyuv, alpha 255 (1 call)", [&p] {
               libyuv::RAWToRGBA(p.src.get(), p.width * 3, p.dst.get(), p.width * 4, p.width,
                                 p.height);
             }}};
  }
  return {{"libyuv, alpha 255 (2 calls)", [&p] {
             libyuv::RAWToARGB(p.src.get(), p.width * 3, p.scratch.get(), p.width * 4, p.width,
                               p.height);
             libyuv::ARGBToBGRA(p.scratch.get(), p.width * 4, p.dst.get(), p.width * 4, p.width,
                                p.height);
           }}};
}
#endif

std::vector<Contender> Swscale(Picture& p, bool bgr) {
  const std::shared_ptr<SwsContext> context(
      sws_getContext(p.width, p.height, bgr ? AV_PIX_FMT_BGR24 : AV_PIX_FMT_RGB24, p.width,
                     p.height, AV_PIX_FMT_ARGB, SWS_POINT, nullptr, nullptr, nullptr),
      sws_freeContext);
  return {{"libswscale, alpha 255", [&p, context] {
             const std::uint8_t* const src[4] = {p.src.get()};
             std::uint8_t* const dst[4] = {p.dst.get()};
             const int src_stride[4] = {p.width * 3}, dst_stride[4] = {p.width * 4};
             sws_scale(context.get(), src, src_stride, 0, p.height, dst, dst_stride);
           }}};
}

void Compare(int width, int height, bool bgr) {
  Picture p(width, height);
  p.expected.resize(4 * p.pixels);
  utils::image::WidenToArgb(utils::image::kArgbScalar, bgr ? &ArgbRuns::bgr : &ArgbRuns::rgb,
                            p.src.get(), p.expected.data(), p.pixels);
  std::vector<Contender> all = Ours(p, bgr), other_alpha;
#if defined(QXTOOLS_BENCH_LIBYUV)
  Append(all, LibyuvSameBytes(p, bgr));
  Append(other_alpha, LibyuvAlpha255(p, bgr));
#endif
  Append(other_alpha, Swscale(p, bgr));
  RequireSameBytes(p, all, true);
  RequireSameBytes(p, other_alpha, false);
  Append(all, other_alpha);
  const std::size_t traffic = 7 * p.pixels;
  const Pages from = MakePages(traffic / 2), to = MakePages(traffic / 2);
  all.push_back(
      {"memcpy of the same traffic", [&] { std::memcpy(to.get(), from.get(), traffic / 2); }});
  char title[80];
  std::snprintf(title, sizeof(title), "%s to ARGB, %d x %d", bgr ? "BGR" : "RGB", width, height);
  CompareThroughput(title, traffic, all);
}

}  // namespace
}  // namespace qx::bench

int main() {
  for (const bool bgr : {false, true}) {
    qx::bench::Compare(640, 480, bgr);
    qx::bench::Compare(1920, 1080, bgr);
    qx::bench::Compare(3840, 2160, bgr);
  }
}
