// Where the stereo command takes its pictures from.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "tools/stereo_picture.h"

namespace qx::tools {

// A sequence of pictures: a picture file gives one, an H.264 stream one per frame.
class PictureSource {
 public:
  virtual ~PictureSource() = default;

  // Returns: the next picture in output order; empty at the end.
  // Errors:  std::exception whose text names the input and the reason.
  virtual std::optional<GrayPicture> Next() = 0;

  // Returns: pictures so far in which errors were concealed.
  virtual std::size_t DamagedPictures() const { return 0; }
};

// Opens a picture file (PNG, PGM, JPEG, told by its first bytes) or else an H.264 stream, through
// the library's demuxer and decoder.
// Errors: std::exception whose text names the input and the reason.
std::unique_ptr<PictureSource> OpenPictureSource(const std::string& input);

struct PicturePair {
  GrayPicture left;
  GrayPicture right;
};

// Reads two inputs in step and holds them to the same size and the same number of pictures.
class PairReader {
 public:
  // Inputs: pairs  how many to read; 0 for as many as there are.
  // Errors: as OpenPictureSource().
  PairReader(const std::string& left, const std::string& right, std::size_t pairs);

  // Returns: empty after as many pairs as asked for, or where both inputs end.
  // Errors:  std::exception whose text says which input is damaged or ends too early, or how the
  //          sizes differ.
  std::optional<PicturePair> Next();

  // Prints how many pictures of each input were damaged, if any.
  void ReportDamage() const;

  // Returns: pairs read so far.
  std::size_t Count() const { return count_; }

 private:
  struct Input {
    std::string name;
    std::unique_ptr<PictureSource> source;
  };

  [[noreturn]] void FailEnded(const Input& input) const;

  Input left_;
  Input right_;
  std::size_t pairs_;
  std::size_t count_ = 0;
};

}  // namespace qx::tools
