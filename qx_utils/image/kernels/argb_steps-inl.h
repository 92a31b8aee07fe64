// The loop of the ARGB conversion's vector kernels, shared by the instruction sets.
//
// A source file includes this header and gives the loop its primitives in a struct `Isa`:
//
//   kStep                               pixels of a step
//   kStreams                            whether stores can bypass the caches
//   Widen<kBgr, kStreaming>(src, dst)   converts kStep pixels and touches no other byte
//   Fence()                             completes the stores that bypass the caches, if kStreams
//
// Everything is in an unnamed namespace: inline code that is compiled for one instruction set must
// never replace another's at link time.
#pragma once

#include "qx_utils/image/kernels/argb.h"
#include "qx_utils/image/kernels/kernel-inl.h"

namespace qx::utils::image {
namespace {

template <typename Isa, bool kBgr, bool kStreaming>
void Widen(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels) {
  if (pixels < Isa::kStep) {
    (kBgr ? kArgbScalar.cached.bgr : kArgbScalar.cached.rgb)(src, dst, pixels);
    return;
  }
  const std::size_t last = pixels - Isa::kStep;  // may convert pixels of the step before once more
  for (std::size_t i = 0; i < last; i += Isa::kStep) {
    Isa::template Widen<kBgr, kStreaming>(src + 3 * i, dst + 4 * i);
  }
  if constexpr (kStreaming) Isa::Fence();
  Isa::template Widen<kBgr, false>(src + 3 * last, dst + 4 * last);
}

template <typename Isa>
constexpr ArgbKernel KernelOf() {
  ArgbKernel kernel{{Widen<Isa, false, false>, Widen<Isa, true, false>}, {}};
  if constexpr (Isa::kStreams) {
    kernel.streaming = {Widen<Isa, false, true>, Widen<Isa, true, true>};
  }
  return kernel;
}

}  // namespace
}  // namespace qx::utils::image
