// The correlation kernel's three device buffers.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "qxtools/image_frame.h"
#include "vitis/bound_unit.h"
#include "xrt/xrt_bo.h"

namespace qx::utils::image::correlation {

// Sizes in bytes: each of the two inputs, and the output.
struct BufferSizes {
  std::int32_t input, output;
};

// Throws std::invalid_argument unless both sizes are positive.
void RequirePositive(const BufferSizes& sizes);

// Released in reverse order.
struct Buffers {
  std::shared_ptr<xrt::bo> left, right, output;
};

// Allocates each buffer in the memory group of its kernel argument.
Buffers CreateBuffers(BoundUnit& unit, const BufferSizes& sizes);

// Returns: the low 32 bits of the buffers' addresses: left, right, output.
std::array<std::uint32_t, 3> LowAddresses(const Buffers& buffers);

// Copies both inputs into their buffers, then synchronises both to the device.
void SendInputs(const Buffers& buffers, const velkar::vision::ImageFrame& input_l,
                const velkar::vision::ImageFrame& input_r);

// Synchronises the output from the device and copies it to the frame.
void ReceiveOutput(const Buffers& buffers, const velkar::vision::ImageFrame& output);

}  // namespace qx::utils::image::correlation
