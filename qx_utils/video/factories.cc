#include <memory>

#include "qxtools/ffmpeg_demuxer.h"
#include "qxtools/video.h"

namespace qx {
namespace utils {
namespace video {

Demuxer::~Demuxer() = default;
Decoder::~Decoder() = default;
Encoder::~Encoder() = default;

std::shared_ptr<Demuxer> Demuxer::CreateInstance() { return std::make_shared<FfmpegDemuxer>(); }

std::shared_ptr<Decoder> Decoder::CreateInstance() { return nullptr; }

std::shared_ptr<Encoder> Encoder::CreateInstance() { return nullptr; }

}  // namespace video
}  // namespace utils
}  // namespace qx
