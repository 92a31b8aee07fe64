// The options of an input, and how FFmpeg's generations name them.
#pragma once

#include <chrono>
#include <string_view>

#include "qx_utils/internal/ffmpeg_handles.h"

namespace qx {
namespace utils {
namespace internal {

// Limit of each wait on the socket of an RTSP camera.
constexpr std::chrono::seconds kSocketLimit(3);

// Returns: whether FFmpeg opens `url` with its RTSP client.
bool IsRtsp(std::string_view url);

// Returns: RTSP over TCP with a limit of 3 s for each wait on the socket. Every input is given
// these options; those that do not know them leave them alone.
FfmpegPtr<AVDictionary> InputOptions(std::string_view url);

}  // namespace internal
}  // namespace utils
}  // namespace qx
