#include "qx_utils/internal/ffmpeg_options.h"

namespace qx {
namespace utils {
namespace internal {
namespace {

// libavformat 58 calls the socket limit of its RTSP client "stimeout", and there "timeout" turns
// the client into a listening server. From 59 on "stimeout" is unknown and "timeout" is that limit;
// other protocols have a "timeout" of their own, which stays as it is.
const char* SocketLimitName(std::string_view url) {
  return LIBAVFORMAT_VERSION_MAJOR >= 59 && IsRtsp(url) ? "timeout" : "stimeout";
}

}  // namespace

bool IsRtsp(std::string_view url) {
  return url.rfind("rtsp:", 0) == 0 || url.rfind("rtsps:", 0) == 0;
}

FfmpegPtr<AVDictionary> InputOptions(std::string_view url) {
  AVDictionary* options = nullptr;
  av_dict_set(&options, "rtsp_transport", "tcp", 0);
  av_dict_set_int(&options, SocketLimitName(url), std::chrono::microseconds(kSocketLimit).count(),
                  0);
  return FfmpegPtr<AVDictionary>(options);
}

}  // namespace internal
}  // namespace utils
}  // namespace qx
