#include "tools/library_log.h"

#include <glog/logging.h>

extern "C" {
#include <libavutil/log.h>
}

namespace qx {
namespace tools {

void QuietLibraryLog(const char* program) {
  google::InitGoogleLogging(program);
  FLAGS_logtostderr = true;
  FLAGS_minloglevel = google::GLOG_FATAL;
  av_log_set_level(AV_LOG_QUIET);
}

void ShowLibraryLog(int level) {
  FLAGS_minloglevel = google::GLOG_INFO;
  FLAGS_v = level;
  av_log_set_level(level > 1 ? AV_LOG_VERBOSE : AV_LOG_WARNING);
}

}  // namespace tools
}  // namespace qx
