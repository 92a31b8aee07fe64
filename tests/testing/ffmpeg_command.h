// The ffmpeg command as a reference for decoded pictures.
#pragma once

#include <cstdlib>
#include <string>

namespace qx {
namespace testing {

// Whether the ffmpeg command brings every picture to the size of the first: before version 4.4 it
// knows no other way.
inline bool FfmpegScales() {
  static const bool scales = std::system("ffmpeg -v quiet -h full | grep -q '^-autoscale'") != 0;
  return scales;
}

// The ffmpeg command's options for all pictures of an input, one after the other, as they are.
inline std::string RawVideo() {
  return std::string(FfmpegScales() ? "" : " -autoscale 0") + " -vsync passthrough -f rawvideo -";
}

}  // namespace testing
}  // namespace qx
