// The correlation kernel's registers, through a mapping of "/dev/mem" or through the device
// runtime.
#pragma once

#include <array>
#include <cstdint>

#include "xrt/xrt_kernel.h"

namespace qx::utils::image::correlation {

// "/dev/mem", open.
class RegisterDevice {
 public:
  RegisterDevice();  // throws std::system_error
  explicit RegisterDevice(int fd) : fd_(fd) {}
  ~RegisterDevice();
  RegisterDevice(const RegisterDevice&) = delete;
  RegisterDevice& operator=(const RegisterDevice&) = delete;

  int fd() const { return fd_; }
  int Release();  // gives up ownership

 private:
  int fd_;
};

// One mapped page of registers.
class RegisterPage {
 public:
  using Words = volatile std::uint32_t*;

  // Maps the page that holds physical address `address`. Throws std::system_error.
  RegisterPage(const RegisterDevice& device, std::uint64_t address);
  explicit RegisterPage(Words words) : words_(words) {}
  ~RegisterPage();
  RegisterPage(const RegisterPage&) = delete;
  RegisterPage& operator=(const RegisterPage&) = delete;

  Words words() const { return words_; }
  Words Release();  // gives up ownership

 private:
  Words words_;
};

// Left, right and output address and the scale exponent.
using Arguments = std::array<std::uint32_t, 4>;

// 32-bit registers of the compute unit; offsets in bytes.
class Registers {
 public:
  Registers() = default;
  virtual ~Registers() = default;
  Registers(const Registers&) = delete;
  Registers& operator=(const Registers&) = delete;

  virtual std::uint32_t Load(std::uint32_t offset) = 0;
  virtual void Store(std::uint32_t offset, std::uint32_t value) = 0;
  // Stores the arguments where the kernel handle says they are.
  virtual void StoreArguments(const Arguments& arguments) = 0;
};

// Accesses the mapped page.
class MappedRegisters final : public Registers {
 public:
  MappedRegisters(xrt::kernel& kernel, RegisterPage::Words words)
      : kernel_(kernel), words_(words) {}

  std::uint32_t Load(std::uint32_t offset) override;
  void Store(std::uint32_t offset, std::uint32_t value) override;
  // Throws std::out_of_range, with nothing stored, when an offset is outside the page or not a
  // multiple of 4.
  void StoreArguments(const Arguments& arguments) override;

 private:
  RegisterPage::Words Word(std::uint32_t offset) const;

  xrt::kernel& kernel_;
  RegisterPage::Words words_;
};

// Calls the device runtime, which accepts this for an exclusive handle only.
class RuntimeRegisters final : public Registers {
 public:
  explicit RuntimeRegisters(xrt::kernel& kernel) : kernel_(kernel) {}

  std::uint32_t Load(std::uint32_t offset) override;
  void Store(std::uint32_t offset, std::uint32_t value) override;
  void StoreArguments(const Arguments& arguments) override;

 private:
  xrt::kernel& kernel_;
};

}  // namespace qx::utils::image::correlation
