// The options of an input, under the names that each FFmpeg generation uses.
#pragma once

#include <chrono>
#include <string>

#include "qx_utils/ffmpeg_handles.h"

namespace qx::utils::internal {

// Limit of each wait on the socket of an RTSP camera.
constexpr std::chrono::seconds kSocketLimit(3);

enum class InputKind {
  kLocal,    // a file or pipe: FFmpeg's reads of it cannot be ended early
  kNetwork,  // anything else
  kRtsp,     // what FFmpeg opens with its RTSP client
};
InputKind KindOf(const std::string& url);

// Returns: RTSP over TCP with a limit of 3 s for each wait on the socket. Every input gets these
// options; protocols that do not know them ignore them.
FfmpegPtr<AVDictionary> InputOptions(const std::string& url);

}  // namespace qx::utils::internal
