// The variants of a kernel that this processor runs.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <vector>

#include "qx_utils/image/kernels/cpu_features.h"

namespace qx::testing {

template <typename Variant>
std::vector<Variant> SupportedVariants(const Variant* (*table)(std::size_t*)) {
  std::size_t count = 0;
  const Variant* const first = table(&count);
  std::vector<Variant> supported;
  std::copy_if(first, first + count, std::back_inserter(supported), [](const Variant& variant) {
    return (variant.required & ~utils::internal::SupportedFeatures()) == 0;
  });
  return supported;
}

}  // namespace qx::testing
