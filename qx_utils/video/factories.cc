#include <memory>

#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/video.h"

namespace qx::utils::video {

Demuxer::~Demuxer() = default;
Decoder::~Decoder() = default;
Encoder::~Encoder() = default;

std::shared_ptr<Demuxer> Demuxer::CreateInstance() { return std::make_shared<FfmpegDemuxer>(); }

std::shared_ptr<Decoder> Decoder::CreateInstance() { return nullptr; }

std::shared_ptr<Encoder> Encoder::CreateInstance() { return nullptr; }

}  // namespace qx::utils::video
