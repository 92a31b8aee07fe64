#include "qx_utils/image/ffmpeg/planes.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace qx::utils::image::engine {
namespace {

bool IsChroma(int plane) { return plane == 1 || plane == 2; }

int ValuesPerPixel(const AVPixFmtDescriptor& format, int plane) {
  int values = 0;
  for (int component = 0; component < format.nb_components; ++component) {
    if (format.comp[component].plane == plane) ++values;
  }
  return values;
}

}  // namespace

Planes PlanesOf(const PictureView& view) {
  const AVPixFmtDescriptor& format = *av_pix_fmt_desc_get(view.format);
  Planes planes;
  planes.count = av_pix_fmt_count_planes(view.format);
  for (int i = 0; i < planes.count; ++i) {
    const auto index = static_cast<std::size_t>(i);
    const int shift_x = IsChroma(i) ? format.log2_chroma_w : 0;
    const int shift_y = IsChroma(i) ? format.log2_chroma_h : 0;
    planes.plane[index] = {view.data[index],
                           view.pitch[index],
                           AV_CEIL_RSHIFT(view.width, shift_x),
                           AV_CEIL_RSHIFT(view.height, shift_y),
                           ValuesPerPixel(format, i),
                           (format.comp[0].depth + 7) / 8};
  }
  return planes;
}

PictureView RowsOf(const PictureView& view, int first, int rows) {
  const int chroma_shift = av_pix_fmt_desc_get(view.format)->log2_chroma_h;
  PictureView part = view;
  part.height = rows;
  for (int i = 0; i < 4; ++i) {
    const auto plane = static_cast<std::size_t>(i);
    if (view.data[plane] == nullptr) continue;
    const int row = IsChroma(i) ? first >> chroma_shift : first;
    part.data[plane] += std::ptrdiff_t{row} * view.pitch[plane];
  }
  return part;
}

}  // namespace qx::utils::image::engine
