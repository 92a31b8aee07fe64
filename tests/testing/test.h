// What every test begins with: the test framework and the names of its matchers, guarded buffers
// and captured logs.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "tests/testing/guarded_buffer.h"
#include "tests/testing/log_capture.h"

namespace qx {

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using testing::GuardedBuffer;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::LogCapture;
using ::testing::SizeIs;

}  // namespace qx
