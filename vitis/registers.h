// The correlation kernel's registers, how they are reached, and the protocol of a run.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>

#include "xrt/xrt_kernel.h"

namespace qx::utils::image::correlation {

// "/dev/mem", open. Throws std::system_error.
class RegisterDevice {
 public:
  RegisterDevice();
  ~RegisterDevice();
  RegisterDevice(const RegisterDevice&) = delete;
  RegisterDevice& operator=(const RegisterDevice&) = delete;

  int fd() const { return fd_; }
  int Release();  // the caller closes it with CloseRegisterDevice()

 private:
  int fd_;
};
void CloseRegisterDevice(int fd);

// Maps the register page that holds physical address `address`. Throws std::system_error.
volatile std::uint32_t* MapRegisters(int fd, std::uint64_t address);
void UnmapRegisters(volatile std::uint32_t* page);

// Left, right and output address and the scale exponent.
using Arguments = std::array<std::uint32_t, 4>;

class Registers {
 public:
  Registers() = default;
  virtual ~Registers() = default;
  Registers(const Registers&) = delete;
  Registers& operator=(const Registers&) = delete;

  virtual std::uint32_t Load(std::uint32_t offset) = 0;
  virtual void Store(std::uint32_t offset, std::uint32_t value) = 0;
  // Asks the kernel where its arguments are, and stores them there.
  virtual void StoreArguments(const Arguments& arguments) = 0;
};

// Through the mapped page.
class MappedRegisters final : public Registers {
 public:
  MappedRegisters(xrt::kernel& kernel, volatile std::uint32_t* page)
      : kernel_(kernel), page_(page) {}

  std::uint32_t Load(std::uint32_t offset) override;
  void Store(std::uint32_t offset, std::uint32_t value) override;
  // Throws std::out_of_range, with nothing stored, when an offset is no word of the page.
  void StoreArguments(const Arguments& arguments) override;

 private:
  volatile std::uint32_t* Word(std::uint32_t offset) const;

  xrt::kernel& kernel_;
  volatile std::uint32_t* page_;
};

// Through the device runtime.
class RuntimeRegisters final : public Registers {
 public:
  explicit RuntimeRegisters(xrt::kernel& kernel) : kernel_(kernel) {}

  std::uint32_t Load(std::uint32_t offset) override;
  void Store(std::uint32_t offset, std::uint32_t value) override;
  void StoreArguments(const Arguments& arguments) override;

 private:
  xrt::kernel& kernel_;
};

// Returns: whether the kernel works on a run.
bool IsRunning(Registers& registers);

// Starts the kernel and waits for its end, looking every `interval`. Throws KernelTimeout.
void StartAndWait(Registers& registers, std::chrono::nanoseconds interval);

}  // namespace qx::utils::image::correlation
