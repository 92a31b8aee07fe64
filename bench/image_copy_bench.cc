// Copies of NV12 pictures into buffers of a larger pitch: CopyImage with MemcpyFunc against
// libyuv's plane copy, libswscale and memcpy of the same traffic, at three picture sizes, in one
// run.
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "bench/interleaved.h"
#include "qxtools/image_copy.h"

#if defined(QXTOOLS_BENCH_LIBYUV)
#include <libyuv.h>
#endif
extern "C" {
#include <libswscale/swscale.h>
}

namespace qx::bench {
namespace {

struct Copy {
  Copy(int w, int h, int dst_w)
      : pitch(w),
        rows(h),
        dst_pitch(dst_w),
        src(MakePages(static_cast<std::size_t>(w * h * 3 / 2))),
        dst(MakePages(static_cast<std::size_t>(dst_w * h * 3 / 2))) {}

  std::size_t bytes() const { return static_cast<std::size_t>(pitch * rows * 3 / 2); }

  int pitch, rows, dst_pitch;
  Pages src, dst;
};

std::vector<Contender> Contenders(Copy& c) {
  std::vector<Contender> all = {{"qxtools, CopyImage with MemcpyFunc", [&c] {
                                   utils::image::CopyImage(
                                       c.dst.get(), static_cast<std::size_t>(c.dst_pitch),
                                       static_cast<std::size_t>(c.rows), c.src.get(),
                                       static_cast<std::size_t>(c.pitch),
                                       static_cast<std::size_t>(c.rows), kQXPixelFormatNV12);
                                 }}};
#if defined(QXTOOLS_BENCH_LIBYUV)
  all.push_back({"libyuv, CopyPlane", [&c] {
                   // Both planes have one pitch and no gap between them: one call copies them.
                   libyuv::CopyPlane(c.src.get(), c.pitch, c.dst.get(), c.dst_pitch, c.pitch,
                                     c.rows * 3 / 2);
                 }});
#endif
  // As one grey plane: from NV12 to NV12 it fills the chroma instead of copying it.
  const int rows = c.rows * 3 / 2;
  const std::shared_ptr<SwsContext> context(
      sws_getContext(c.pitch, rows, AV_PIX_FMT_GRAY8, c.pitch, rows, AV_PIX_FMT_GRAY8, SWS_POINT,
                     nullptr, nullptr, nullptr),
      sws_freeContext);
  all.push_back({"libswscale, one plane", [&c, rows, context] {
                   const std::uint8_t* const src[4] = {c.src.get()};
                   std::uint8_t* const dst[4] = {c.dst.get()};
                   const int pitches[4] = {c.pitch}, dst_pitches[4] = {c.dst_pitch};
                   sws_scale(context.get(), src, pitches, 0, rows, dst, dst_pitches);
                 }});
  return all;
}

void RequireCopied(Copy& c, const Contender& contender) {
  const auto dst_bytes = static_cast<std::size_t>(c.dst_pitch * c.rows * 3 / 2);
  std::memset(c.dst.get(), 0, dst_bytes);
  contender.run();
  for (int row = 0; row < c.rows * 3 / 2; ++row) {
    Require(std::memcmp(c.src.get() + row * c.pitch, c.dst.get() + row * c.dst_pitch,
                        static_cast<std::size_t>(c.pitch)) == 0,
            contender.name);
  }
}

void Compare(int width, int height, int dst_pitch) {
  Copy c(width, height, dst_pitch);
  std::vector<Contender> all = Contenders(c);
  for (const Contender& contender : all) RequireCopied(c, contender);
  all.push_back(
      {"memcpy of the same traffic", [&c] { std::memcpy(c.dst.get(), c.src.get(), c.bytes()); }});
  char title[80];
  std::snprintf(title, sizeof(title), "NV12 %d x %d, pitch %d to %d", width, height, width,
                dst_pitch);
  CompareThroughput(title, 2 * c.bytes(), all);
}

}  // namespace
}  // namespace qx::bench

int main() {
  qx::bench::Compare(640, 480, 768);
  qx::bench::Compare(1920, 1080, 2048);
  qx::bench::Compare(3840, 2160, 4096);
}
