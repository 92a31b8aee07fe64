#include "qx_utils/image/kernels/cpu_features.h"

#include <glog/logging.h>

#include <cstdlib>
#include <string>

#include "qxtools/instruction_sets.h"

#if defined(__aarch64__)
#include <sys/auxv.h>
#endif

namespace qx::utils::internal {
namespace {

#if defined(__x86_64__)
constexpr Isa kIsas[] = {{"avx512vbmi", kCpuAvx512Vbmi | kCpuAvx512Vnni | kCpuAvx2 | kCpuSsse3},
                         {"avx512vnni", kCpuAvx512Vnni | kCpuAvx2 | kCpuSsse3},
                         {"avx2", kCpuAvx2 | kCpuSsse3},
                         {"ssse3", kCpuSsse3},
                         {"scalar", 0}};
#elif defined(__aarch64__)
constexpr Isa kIsas[] = {
    {"neon_dotprod", kCpuNeonDotprod | kCpuNeon}, {"neon", kCpuNeon}, {"scalar", 0}};
#else
constexpr Isa kIsas[] = {{"scalar", 0}};
#endif

std::string NamesOf(std::uint32_t supported) {
  std::string names;
  for (const Isa& isa : CompiledIsas()) {
    if ((isa.features & ~supported) == 0)
      names += std::string(names.empty() ? "" : ", ") + isa.name;
  }
  return names;
}

}  // namespace

IsaTable CompiledIsas() { return {kIsas, sizeof(kIsas) / sizeof(kIsas[0])}; }

#if defined(__x86_64__)

std::uint32_t SupportedFeatures() {
  // These builtins ask the operating system too: wide registers count only when it saves them.
  std::uint32_t features = 0;
  if (__builtin_cpu_supports("ssse3")) features |= kCpuSsse3;
  if (__builtin_cpu_supports("avx2")) features |= kCpuAvx2;
  if (!__builtin_cpu_supports("avx512f") || !__builtin_cpu_supports("avx512bw")) return features;
  if (__builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") &&
      __builtin_cpu_supports("avx512vnni")) {
    features |= kCpuAvx512Vnni;
  }
  if (__builtin_cpu_supports("avx512vbmi")) features |= kCpuAvx512Vbmi;
  return features;
}

#elif defined(__aarch64__)

std::uint32_t SupportedFeatures() {
  // Bits of the kernel's interface.
  constexpr unsigned long kHwcapAsimd = 1UL << 1;
  constexpr unsigned long kHwcapAsimdDotprod = 1UL << 20;
  std::uint32_t features = 0;
  if ((getauxval(AT_HWCAP) & kHwcapAsimd) != 0) features |= kCpuNeon;
  if ((getauxval(AT_HWCAP) & kHwcapAsimdDotprod) != 0) features |= kCpuNeonDotprod;
  return features;
}

#else

std::uint32_t SupportedFeatures() { return 0; }

#endif

std::uint32_t ChooseFeatures(const char* forced, std::uint32_t supported) {
  if (forced == nullptr || *forced == '\0') return supported;
  for (const Isa& isa : CompiledIsas()) {
    if (std::string(forced) != isa.name) continue;
    if ((isa.features & ~supported) == 0) return isa.features;
    LOG(ERROR) << "QXTOOLS_FORCE_ISA=" << forced << " is ignored: this processor does not have it"
               << "; it has " << NamesOf(supported);
    return supported;
  }
  LOG(ERROR) << "QXTOOLS_FORCE_ISA=" << forced << " is ignored: no such instruction set here"
             << "; use one of " << NamesOf(supported);
  return supported;
}

std::uint32_t ActiveFeatures() {
  static const std::uint32_t features =
      ChooseFeatures(std::getenv("QXTOOLS_FORCE_ISA"), SupportedFeatures());
  return features;
}

}  // namespace qx::utils::internal

namespace qx::utils {

std::vector<InstructionSet> InstructionSets() {
  const std::uint32_t supported = internal::SupportedFeatures();
  const std::uint32_t active = internal::ActiveFeatures();
  std::vector<InstructionSet> sets;
  bool above = true;  // no active one so far
  for (const internal::Isa& isa : internal::CompiledIsas()) {
    const bool usable = (isa.features & ~active) == 0;
    sets.push_back({isa.name, (isa.features & ~supported) == 0, above && usable});
    above = above && !usable;
  }
  return sets;
}

}  // namespace qx::utils
