// All that vitis/ needs of the board besides the device runtime's own classes: the register device
// "/dev/mem", sleeping, single register accesses, and the compute unit's address.
//
// Two implementations: system/ makes the calls on a real board; emulated/ makes them on the
// emulated board's physical memory and never opens the machine's own "/dev/mem".
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace qx::board {

constexpr std::size_t kPageBytes = 4096;  // of registers, as they are mapped

// Each has the arguments, result and errno of the call that its comment names.
int Open(const char* path, int flags);                                                 // open
void* Map(std::size_t bytes, int protection, int flags, int fd, off_t physical_addr);  // mmap
int Unmap(void* map, std::size_t bytes);                                               // munmap
int Close(int fd);                                                                     // close
int Sleep(const std::timespec* request, std::timespec* remaining);                     // nanosleep

// One 32-bit register access through a mapping.
std::uint32_t LoadRegister(const volatile std::uint32_t* reg);
void StoreRegister(volatile std::uint32_t* reg, std::uint32_t value);

// Asks the process-wide device handle for the physical base address of a compute unit's registers,
// and drops the handle again. The runtime reports failure by throwing.
std::uint64_t ComputeUnitBaseAddress(const std::string& kernel, std::size_t core);

}  // namespace qx::board
