// Container files of the emulated board: whatever is accepted can be programmed and run.
#include <cstdint>
#include <stdexcept>
#include <string>

#include "fuzz/require.h"
#include "platform/emulated/container.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using qx::fuzzing::Require;
  using namespace qx::platform;  // NOLINT(google-build-using-namespace)
  const std::string text(reinterpret_cast<const char*>(data), size);
  Container container;
  try {
    container = ParseContainer(text);
  } catch (const std::runtime_error&) {
    return 0;
  }
  Require(GeometryFault(container.geometry).empty());
  const std::uint64_t registers = PageOf(container.base_address);
  Require(registers + kRegisterBlockBytes <= kPhysicalMemoryBytes);
  for (const auto& memory : container.memory) {
    Require(memory.size != 0 && memory.base + memory.size <= kPhysicalMemoryBytes);
    Require(memory.base >= registers + kRegisterBlockBytes ||
            memory.base + memory.size <= registers);
  }
  for (const auto& argument : container.arguments) {
    Require(argument.offset % 4 == 0 && argument.offset != 0 &&
            argument.offset < kRegisterBlockBytes);
  }
  return 0;
}
