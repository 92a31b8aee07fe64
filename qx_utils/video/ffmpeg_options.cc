#include "qx_utils/video/ffmpeg_options.h"

#include <cstring>

namespace qx::utils::internal {
namespace {

// libavformat 58 calls the socket limit of its RTSP client "stimeout"; its "timeout" turns the
// client into a listening server. From 59 on "stimeout" is unknown and "timeout" is that limit. The
// "timeout" of other protocols is not set.
const char* SocketLimitName(const std::string& url) {
  return LIBAVFORMAT_VERSION_MAJOR >= 59 && KindOf(url) == InputKind::kRtsp ? "timeout"
                                                                            : "stimeout";
}

}  // namespace

InputKind KindOf(const std::string& url) {
  if (url.rfind("rtsp:", 0) == 0 || url.rfind("rtsps:", 0) == 0) return InputKind::kRtsp;
  const char* protocol = avio_find_protocol_name(url.c_str());
  const bool local = protocol != nullptr &&
                     (std::strcmp(protocol, "file") == 0 || std::strcmp(protocol, "pipe") == 0);
  return local ? InputKind::kLocal : InputKind::kNetwork;
}

FfmpegPtr<AVDictionary> InputOptions(const std::string& url) {
  AVDictionary* options = nullptr;
  av_dict_set(&options, "rtsp_transport", "tcp", 0);
  av_dict_set_int(&options, SocketLimitName(url), std::chrono::microseconds(kSocketLimit).count(),
                  0);
  return FfmpegPtr<AVDictionary>(options);
}

}  // namespace qx::utils::internal
