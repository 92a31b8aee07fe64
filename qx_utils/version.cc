#include "qxtools/version.h"

namespace qx::utils {

const char* Version() { return QXTOOLS_VERSION; }

}  // namespace qx::utils
