// What the options of stereo matching may be.
#pragma once

#include <cstddef>

#include "qxtools/stereo_matcher.h"

namespace qx::utils::stereo {

// Errors of all: std::invalid_argument with the option's name, its value and its range.

void CheckOptions(const StereoOptions& options);

// Of a volume of `disparities` that starts at options.first_disparity.
void CheckRange(std::size_t disparities, const StereoOptions& options);

void CheckShift(int shift);

// The penalties and `paths`.
void CheckPaths(const StereoOptions& options);

}  // namespace qx::utils::stereo
