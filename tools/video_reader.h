// The decoded pictures of an H.264 input, one at a time.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "qxtools/ffmpeg_video_decoder.h"
#include "qxtools/image_frame.h"
#include "tools/video_input.h"

namespace qx::tools {

// Errors: std::runtime_error that names the input and the reason, from the constructor and Next().
class VideoReader {
 public:
  explicit VideoReader(const std::string& name, const StreamOptions& options = {});

  // Returns: the next picture in output order, for which utils::ffmpeg::LayoutOf() has the layout;
  //          empty after the last, including those that the decoder had held back.
  std::shared_ptr<velkar::vision::ImageFrame> Next();

  // What the container says of the stream.
  utils::video::StreamTimes Times() const { return input_.Times(); }

  // Returns: packets that were damaged so far. Decoding goes on after them.
  std::size_t DamagedPackets() const { return damaged_packets_ + input_.DamagedPackets(); }

  // Returns: pictures handed out so far in which errors were concealed.
  std::size_t DamagedPictures() const { return damaged_pictures_; }

  // Returns: gaps in the stream so far: a camera that was lost, or damaged packets.
  std::size_t Gaps() const { return gaps_; }

  // Returns: why the rest of the input cannot be read; empty when nothing is wrong.
  const std::string& Fault() const { return input_.Fault(); }

 private:
  // What the decoder's thread and this one share. Declared before the decoder, so that it lives
  // longer than the callback.
  struct Delivered {
    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<std::shared_ptr<velkar::vision::ImageFrame>> frames;
  };

  bool Decode();
  std::shared_ptr<velkar::vision::ImageFrame> Take();

  VideoInput input_;
  Delivered delivered_;
  std::shared_ptr<utils::ffmpeg::FfmpegDecoder> decoder_;
  bool draining_ = false;
  std::size_t damaged_packets_ = 0;
  std::size_t damaged_pictures_ = 0;
  std::size_t gaps_ = 0;
};

}  // namespace qx::tools
