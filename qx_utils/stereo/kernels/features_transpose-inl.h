// Describing pixels with vectors that hold one channel of many pixels, for features_stripes-inl.h.
//
// The channels of a pixel belong next to each other, so that the vectors are transposed, within
// each 128-bit part: four steps of interleaving after two channels were narrowed into a vector.
//
// Beyond the driver's primitives, `Isa` has these:
//
//   Bytes                              a vector of 8-bit values
//   Scale(from, sum4, minus_lengths)   the features of one channel as 16-bit values
//   Narrow(a, b)                       limits both to 8 bits; in each 128-bit part, a before b
//   Interleave<bytes>(a, b, low, high) units of that many bytes of the lower, and of the upper
//                                      halves of each 128-bit part of a and b, in turns
//   StoreParts(to, a)                  stores the n-th 128-bit part at to + n * 8 pixels
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/stereo/kernels/features_stripes-inl.h"

namespace qx::utils::stereo {
namespace {

// Eight channels. Output: out[n] holds pixels 2 n and 2 n + 1 of each 128-bit part.
template <typename Isa>
QXTOOLS_INLINE void EightChannels(const std::uint16_t* const* neighbours, std::size_t x,
                                  typename Isa::Vector sum4, typename Isa::Vector minus_lengths,
                                  typename Isa::Bytes (&out)[4]) {
  const auto scaled = [&](int channel) QXTOOLS_INLINE_BODY {
    return Isa::Scale(neighbours[channel] + x, sum4, minus_lengths);
  };
  typename Isa::Bytes pairs[4], quads[4];  // of channels 01 23 45 67, and of 0123 and 4567
  Isa::template Interleave<1>(Isa::Narrow(scaled(0), scaled(2)), Isa::Narrow(scaled(1), scaled(3)),
                              pairs[0], pairs[1]);
  Isa::template Interleave<1>(Isa::Narrow(scaled(4), scaled(6)), Isa::Narrow(scaled(5), scaled(7)),
                              pairs[2], pairs[3]);
  Isa::template Interleave<2>(pairs[0], pairs[1], quads[0], quads[1]);
  Isa::template Interleave<2>(pairs[2], pairs[3], quads[2], quads[3]);
  Isa::template Interleave<4>(quads[0], quads[2], out[0], out[1]);
  Isa::template Interleave<4>(quads[1], quads[3], out[2], out[3]);
}

template <typename Isa>
QXTOOLS_INLINE void DescribeTransposed(const std::uint16_t* const* neighbours, std::size_t x,
                                       typename Isa::Vector sum4,
                                       typename Isa::Vector minus_lengths, std::int8_t* to) {
  for (std::size_t channel = 0; channel < kFeatureChannels; channel += 16) {
    typename Isa::Bytes first[4], second[4];
    EightChannels<Isa>(neighbours + channel, x, sum4, minus_lengths, first);
    EightChannels<Isa>(neighbours + channel + 8, x, sum4, minus_lengths, second);
    for (std::size_t pair = 0; pair < 4; ++pair) {
      typename Isa::Bytes even, odd;
      Isa::template Interleave<8>(first[pair], second[pair], even, odd);
      std::int8_t* const pixel = to + 2 * pair * kFeatureChannels + channel;
      Isa::StoreParts(pixel, even);
      Isa::StoreParts(pixel + kFeatureChannels, odd);
    }
  }
}

}  // namespace
}  // namespace qx::utils::stereo
