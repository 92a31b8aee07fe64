// Picture files of any content: refused, or a picture of the size and format that its frame names.
#include "fuzz/media_properties.h"
#include "qxtools/ffmpeg_media_proc.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto engine = qx::utils::image::CreateFfmpegMediaProc();
  const auto frame = engine->Decode(data, size);
  if (frame != nullptr) qx::fuzzing::CheckPicture(frame);
  return 0;
}
