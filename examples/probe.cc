// Prints the picture size, profile and level of a file or camera: probe INPUT
#include <qxtools/annexb_filter.h>
#include <qxtools/ffmpeg_demuxer.h>
#include <qxtools/h264_h265_info_parse.h>

#include <cstdio>

namespace video = qx::utils::video;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s INPUT\n", argv[0]);
    return 2;
  }
  video::FfmpegDemuxer demuxer;
  video::AnnexBFilter filter;
  if (demuxer.Open(argv[1], {}) != 0 || filter.Init(demuxer) != 0) return 1;

  while (const auto read = demuxer.ReadFrame()) {
    const auto packet = filter.Filter(read);
    if (!packet) continue;  // damaged; the log says how
    const char* bytes = reinterpret_cast<const char*>(packet->data);
    const auto params = packet->codec == video::kVideoCodecH265
                            ? qx::utils::ParseH265Params(bytes, packet->size)
                            : qx::utils::ParseH264Params(bytes, packet->size);
    if (params.width == 0) continue;  // no parameter set in this packet
    std::printf("%s %llu x %llu, profile %u, level %u\n", params.is_h265 != 0 ? "H.265" : "H.264",
                static_cast<unsigned long long>(params.width),
                static_cast<unsigned long long>(params.height), params.profile_idc,
                params.level_idc);
    return 0;
  }
  std::fprintf(stderr, "%s: no parameter set found\n", argv[1]);
  return 1;
}
