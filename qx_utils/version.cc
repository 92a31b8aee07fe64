#include "qxtools/version.h"

namespace qx {
namespace utils {

const char* Version() { return QXTOOLS_VERSION; }

}  // namespace utils
}  // namespace qx
