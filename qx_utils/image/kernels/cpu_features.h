// What the processor can do, and which of it the library uses.
//
// An instruction set is a named bundle of processor features. Every operation with several
// variants keeps a table {name, required features, function}, best first and scalar last, and
// runs the first entry whose features are all active.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx::utils::internal {

enum CpuFeature : std::uint32_t {
  kCpuAvx2 = 1U << 0,
  kCpuAvx512Vnni = 1U << 1,  // AVX-512 F, BW, DQ, VL and VNNI
  kCpuNeon = 1U << 2,
  kCpuNeonDotprod = 1U << 3,  // SDOT
  kCpuSsse3 = 1U << 4,
  kCpuAvx512Vbmi = 1U << 5,  // AVX-512 F, BW and VBMI
};

// The name that QXTOOLS_FORCE_ISA and `qxtools isa` use, and the features that it stands for.
struct Isa {
  const char* name;
  std::uint32_t features;
};

// Constants of the program, which also code that runs after main() may read.
struct IsaTable {
  const Isa* first;
  std::size_t count;

  const Isa* begin() const { return first; }
  const Isa* end() const { return first + count; }
};

// The instruction sets that this build has code for, best first, `scalar` last.
IsaTable CompiledIsas();

// Features of this processor that the operating system has switched on.
std::uint32_t SupportedFeatures();

// Features in use: all supported ones, or those of the instruction set that the environment
// variable QXTOOLS_FORCE_ISA names. An unknown or unsupported name is reported at ERROR once and
// ignored. Decided at the first call and kept. Safe from any thread.
std::uint32_t ActiveFeatures();

// The decision behind ActiveFeatures(): `forced` is null when nothing is asked for.
std::uint32_t ChooseFeatures(const char* forced, std::uint32_t supported);

// The best entry of a table that runs with `features`; the last entry must require none.
template <typename Variant>
const Variant& BestVariant(const Variant* table, std::size_t count, std::uint32_t features) {
  std::size_t i = 0;
  while (i + 1 < count && (table[i].required & ~features) != 0) ++i;
  return table[i];
}

}  // namespace qx::utils::internal
