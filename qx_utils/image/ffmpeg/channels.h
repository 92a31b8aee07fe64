// Packed pixels taken apart into one plane per channel, and put together again.
#pragma once

#include <array>
#include <cstdint>

#include "qx_utils/ffmpeg_handles.h"

namespace qx::utils::image::engine {

// Where the channels are in a pixel, in bytes; alpha is -1 where there is none.
struct PixelOrder {
  int channels;
  int red;
  int green;
  int blue;
  int alpha;
};

// Returns: the order of a packed format; null for all other formats.
const PixelOrder* PixelOrderOf(AVPixelFormat format);

// One row of each channel. Those past the number of channels are not used.
using ChannelRows = std::array<std::uint8_t*, 4>;

// Channel i of the `pixels` packed pixels at `packed` goes to, or comes from, rows[i]. No memory
// past those pixels is read or written, and no two of the arguments overlap.
void SplitChannels(const std::uint8_t* packed, int channels, int pixels, const ChannelRows& rows);
void MergeChannels(const ChannelRows& rows, int channels, int pixels, std::uint8_t* packed);

}  // namespace qx::utils::image::engine
