// One run of the correlation kernel: start, wait, and what happens to the buffers when it is given
// up.
#pragma once

#include <chrono>

#include "vitis/buffers.h"
#include "vitis/registers.h"

namespace qx::utils::image::correlation {

using SystemTime = std::chrono::system_clock::time_point;

// Throws KernelTimeout while the kernel is busy with an earlier run: the end of that run would be
// mistaken for the end of the next.
void RequireIdle(Registers& registers);

// Stores the arguments, starts the kernel and reads the control word every `interval` (below one
// second) until the run has ended. Throws KernelTimeout.
//
// When this fails while the kernel still runs, the buffers outlive their owner, because the kernel
// continues to read and write their memory. They are kept until RequireIdle() finds the kernel
// idle, so there is never more than one set of them.
void Run(Registers& registers, const Buffers& buffers, const Arguments& arguments,
         std::chrono::nanoseconds interval);

double MillisecondsSince(SystemTime start);

}  // namespace qx::utils::image::correlation
