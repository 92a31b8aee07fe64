// The correlation kernel's device buffers, and a run on them.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>

#include "qxtools/image_frame.h"
#include "vitis/registers.h"
#include "xrt/xrt_bo.h"
#include "xrt/xrt_device.h"
#include "xrt/xrt_kernel.h"

namespace qx::utils::image::correlation {

// Released in reverse order.
struct Buffers {
  std::shared_ptr<xrt::bo> left, right, output;
};

// Throws std::invalid_argument unless both sizes, in bytes, are positive.
void RequireSizes(std::int32_t input_size, std::int32_t output_size);

// Each in the memory group of its kernel argument.
Buffers CreateBuffers(xrt::device& device, xrt::kernel& kernel, std::int32_t input_size,
                      std::int32_t output_size);

// The low 32 bits of the buffers' addresses: left, right, output.
std::array<std::uint32_t, 3> LowAddresses(const Buffers& buffers);

// Copies both inputs into their buffers, then synchronises both to the device.
void SendInputs(const Buffers& buffers, const velkar::vision::ImageFrame& input_l,
                const velkar::vision::ImageFrame& input_r);
// Synchronises the output from the device and copies it to the frame.
void ReceiveOutput(const Buffers& buffers, const velkar::vision::ImageFrame& output);

// Throws KernelTimeout while the kernel works on an earlier run: the end of that run would be
// mistaken for the end of the next.
void RequireIdle(Registers& registers);

// Stores the arguments, starts the kernel and waits for its end. Throws KernelTimeout.
//
// When this fails while the kernel still runs, the buffers outlive their owner: the kernel goes on
// reading and writing their memory. They are kept until RequireIdle() finds the kernel idle, so
// there is never more than one set of them.
void Run(Registers& registers, const Buffers& buffers, const Arguments& arguments,
         std::chrono::nanoseconds interval);

}  // namespace qx::utils::image::correlation
