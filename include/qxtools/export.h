// Marks what leaves the shared library; everything else stays hidden inside it.
#pragma once

#define QXTOOLS_EXPORT __attribute__((visibility("default")))
