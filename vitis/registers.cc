#include "vitis/registers.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "board/board_interface.h"

namespace qx::utils::image::correlation {
namespace {

using board::kPageBytes;

constexpr char kMemoryPath[] = "/dev/mem";

[[noreturn]] void ThrowRegisterError(int error, const std::string& action) {
  const bool refused = error == EACCES || error == EPERM;
  throw std::system_error(error, std::generic_category(),
                          "cannot " + action + ' ' + kMemoryPath +
                              " for the correlation kernel's registers" +
                              (refused ? " (this needs superuser privileges)" : ""));
}

void RequireWordOfPage(std::uint32_t offset, std::size_t argument) {
  if (offset % sizeof(std::uint32_t) == 0 && offset < kPageBytes) return;
  throw std::out_of_range("the register of kernel argument " + std::to_string(argument) +
                          " is not a word of the mapped page: offset " + std::to_string(offset));
}

}  // namespace

RegisterDevice::RegisterDevice() : fd_(board::Open(kMemoryPath, O_RDWR | O_SYNC)) {
  if (fd_ < 0) ThrowRegisterError(errno, "open");
}

RegisterDevice::~RegisterDevice() {
  if (fd_ >= 0) board::Close(fd_);
}

int RegisterDevice::Release() { return std::exchange(fd_, -1); }

RegisterPage::RegisterPage(const RegisterDevice& device, std::uint64_t address) {
  const std::uint64_t page = address & ~std::uint64_t{kPageBytes - 1};
  void* map = board::Map(kPageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, device.fd(),
                         static_cast<off_t>(page));
  if (map == MAP_FAILED) ThrowRegisterError(errno, "map");
  words_ = static_cast<Words>(map);
}

RegisterPage::~RegisterPage() {
  if (words_ != nullptr) board::Unmap(const_cast<std::uint32_t*>(words_), kPageBytes);
}

RegisterPage::Words RegisterPage::Release() { return std::exchange(words_, nullptr); }

RegisterPage::Words MappedRegisters::Word(std::uint32_t offset) const {
  return words_ + offset / sizeof(std::uint32_t);
}

std::uint32_t MappedRegisters::Load(std::uint32_t offset) {
  return board::LoadRegister(Word(offset));
}

void MappedRegisters::Store(std::uint32_t offset, std::uint32_t value) {
  board::StoreRegister(Word(offset), value);
}

void MappedRegisters::StoreArguments(const Arguments& arguments) {
  std::array<std::uint32_t, 4> offsets{};
  for (std::size_t i = 0; i < offsets.size(); ++i) {
    offsets[i] = kernel_.offset(static_cast<int>(i));
    RequireWordOfPage(offsets[i], i);
  }
  for (std::size_t i = 0; i < offsets.size(); ++i) Store(offsets[i], arguments[i]);
}

std::uint32_t RuntimeRegisters::Load(std::uint32_t offset) { return kernel_.read_register(offset); }

void RuntimeRegisters::Store(std::uint32_t offset, std::uint32_t value) {
  kernel_.write_register(offset, value);
}

void RuntimeRegisters::StoreArguments(const Arguments& arguments) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    Store(kernel_.offset(static_cast<int>(i)), arguments[i]);
  }
}

}  // namespace qx::utils::image::correlation
