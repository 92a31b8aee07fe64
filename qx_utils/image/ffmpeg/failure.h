// How the engine's files report a failure to the one place that logs it.
#pragma once

#include <stdexcept>
#include <string>

#include "qx_utils/ffmpeg_handles.h"

namespace qx::utils::image::engine {

// Why an operation has no result; the text follows "<operation>: " in the log.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throws a Failure that names `call` when `code` is one of FFmpeg's errors. Returns: `code`.
int Check(int code, const char* call);

// Owns what an FFmpeg function has allocated. Throws a Failure that names `call` for null.
template <typename T>
internal::FfmpegPtr<T> Own(T* handle, const char* call) {
  if (handle == nullptr) throw Failure(std::string(call) + " failed");
  return internal::FfmpegPtr<T>(handle);
}

}  // namespace qx::utils::image::engine
