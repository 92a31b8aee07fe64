#include "qx_utils/image/ffmpeg/failure.h"

#include <array>

extern "C" {
#include <libavutil/error.h>
}

namespace qx::utils::image::engine {

int Check(int code, const char* call) {
  if (code >= 0) return code;
  std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
  av_strerror(code, text.data(), text.size());
  throw Failure(std::string(call) + " failed: " + text.data());
}

}  // namespace qx::utils::image::engine
