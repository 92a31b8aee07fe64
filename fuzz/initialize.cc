// What every fuzz target starts with.
#include <glog/logging.h>

#include <cstddef>

extern "C" {
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  av_log_set_level(AV_LOG_QUIET);
  av_max_alloc(std::size_t{16} << 20);  // a damaged size must not use up the memory
  FLAGS_minloglevel = google::FATAL;
  return 0;
}
