// Where the stereo command gets its pictures from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tools/image.h"

namespace qx::tools {

// A sequence of pictures: one from a picture file, one per frame from an H.264 stream.
class PictureSource {
 public:
  virtual ~PictureSource() = default;

  // Returns: the next picture in output order; empty at the end. A picture file gives a frame of
  //          kQXPixelFormatGray8, a stream the decoder's frames as they are.
  // Errors:  std::exception whose text names the input and the reason.
  virtual FramePtr Next() = 0;

  // Returns: the colours of the picture that Next() returned last, as a frame of
  //          kQXPixelFormatRGB888; empty if it is grey.
  // Errors:  as Next().
  virtual FramePtr Colours() = 0;

  // Returns: pictures so far in which errors were concealed.
  virtual std::size_t DamagedPictures() const { return 0; }

  // Returns: how many pictures there will be, according to the container; 0 when unknown.
  virtual std::size_t Expected() const { return 1; }

  // Ends a Next() that waits for a camera. May be called from any thread.
  virtual void Cancel() {}
};

// Opens a picture file (PNG, PGM, JPEG, ..., recognised by its first bytes) or else an H.264
// stream, through the library's demuxer and decoder. Errors: std::exception whose text names the
// input and the reason.
std::unique_ptr<PictureSource> OpenPictureSource(const std::string& input);

// The luma of a picture, in place.
struct LumaView {
  explicit LumaView(const FramePtr& frame);

  const std::uint8_t* Row(std::uint32_t y) const { return data + std::size_t{y} * pitch; }

  const std::uint8_t* data;
  std::size_t pitch;
  std::uint32_t width;
  std::uint32_t height;
};

// Which colours PairReader reads besides the luma.
enum class Colours { kNone, kLeft, kBoth };

struct PicturePair {
  FramePtr left;
  FramePtr right;
  FramePtr left_colours;  // of kQXPixelFormatRGB888; empty if it is grey, or colours are not wanted
  FramePtr right_colours;
};

// Reads two inputs in step and requires the same size and the same number of pictures; or reads one
// whose pictures show the left and the right view side by side.
class PairReader {
 public:
  // Inputs: right  empty: `left` shows both views.
  //         pairs  how many to read; 0 for as many as there are.
  // Errors: as OpenPictureSource().
  PairReader(const std::string& left, const std::string& right, std::size_t pairs,
             Colours colours = Colours::kNone);

  // Returns: nothing after `pairs` pairs, or when both inputs end.
  // Errors:  std::exception whose text says which input is damaged or ends too early, or how the
  //          sizes differ.
  std::optional<PicturePair> Next();

  // Prints how many pictures of each input were damaged, if any.
  void ReportDamage() const;

  // Returns: pairs read so far.
  std::size_t Count() const { return count_; }

  // Returns: how many pairs there will be; 0 when unknown.
  std::size_t Expected() const { return pairs_ != 0 ? pairs_ : left_.source->Expected(); }

  // Ends a Next() that waits for a camera. May be called from any thread.
  void Cancel();

 private:
  struct Input {
    std::string name;
    std::unique_ptr<PictureSource> source;  // null: the other input shows both views
  };

  [[noreturn]] void FailEnded(const Input& input) const;
  PicturePair Split(const FramePtr& picture) const;
  void AddColours(PicturePair& pair) const;

  Input left_;
  Input right_;
  std::size_t pairs_;
  Colours colours_;
  std::size_t count_ = 0;
};

}  // namespace qx::tools
