#include "vitis/buffers.h"

#include <glog/logging.h>

#include <stdexcept>
#include <string>

namespace qx::utils::image::correlation {
namespace {

// Directions and flags as the device runtime numbers them.
constexpr auto kToDevice = static_cast<xclBOSyncDirection>(0);
constexpr auto kFromDevice = static_cast<xclBOSyncDirection>(1);
constexpr auto kNoFlags = static_cast<xrt::bo::flags>(0);

std::shared_ptr<xrt::bo> CreateBuffer(BoundUnit& unit, int argument, std::int32_t bytes) {
  const auto group = static_cast<unsigned int>(unit.kernel->group_id(argument));
  return std::make_shared<xrt::bo>(static_cast<void*>(unit.device),
                                   static_cast<unsigned long>(bytes), kNoFlags, group);
}

}  // namespace

void RequirePositive(const BufferSizes& sizes) {
  if (sizes.input > 0 && sizes.output > 0) return;
  throw std::invalid_argument("the correlation kernel's buffers need positive sizes: input " +
                              std::to_string(sizes.input) + ", output " +
                              std::to_string(sizes.output) + " bytes");
}

Buffers CreateBuffers(BoundUnit& unit, const BufferSizes& sizes) {
  Buffers buffers;
  buffers.left = CreateBuffer(unit, 0, sizes.input);
  buffers.right = CreateBuffer(unit, 1, sizes.input);
  buffers.output = CreateBuffer(unit, 2, sizes.output);
  return buffers;
}

std::array<std::uint32_t, 3> LowAddresses(const Buffers& buffers) {
  std::array<std::uint32_t, 3> low{};
  low[0] = static_cast<std::uint32_t>(buffers.left->address());
  low[1] = static_cast<std::uint32_t>(buffers.right->address());
  low[2] = static_cast<std::uint32_t>(buffers.output->address());
  return low;
}

void SendInputs(const Buffers& buffers, const velkar::vision::ImageFrame& input_l,
                const velkar::vision::ImageFrame& input_r) {
  const std::uint8_t* const left = input_l.Data();
  const std::uint8_t* const right = input_r.Data();
  buffers.left->write(left, buffers.left->size(), 0);
  buffers.right->write(right, buffers.right->size(), 0);
  buffers.left->sync(kToDevice, buffers.left->size(), 0);
  buffers.right->sync(kToDevice, buffers.right->size(), 0);
  VLOG(1) << "CORR_FPGA Execution Start";
}

void ReceiveOutput(const Buffers& buffers, const velkar::vision::ImageFrame& output) {
  buffers.output->sync(kFromDevice, buffers.output->size(), 0);
  buffers.output->read(output.Data(), buffers.output->size(), 0);
}

}  // namespace qx::utils::image::correlation
