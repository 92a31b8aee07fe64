#include "qx_utils/image/ffmpeg/file_header.h"

#include <algorithm>
#include <string_view>

#include "qx_utils/image/ffmpeg/failure.h"

namespace qx::utils::image::engine {
namespace {

// The file's bytes; reading past them is a Failure.
class Bytes {
 public:
  Bytes(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  std::size_t size() const { return size_; }
  const std::uint8_t* end() const { return data_ + size_; }
  const std::uint8_t* At(std::size_t position) const { return data_ + std::min(position, size_); }

  std::uint8_t operator[](std::size_t position) const {
    if (position >= size_) throw Failure("the file is truncated");
    return data_[position];
  }
  std::uint32_t BigEndian(std::size_t position, std::size_t bytes) const {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < bytes; ++i) value = value << 8 | (*this)[position + i];
    return value;
  }
  std::uint32_t LittleEndian(std::size_t position, std::size_t bytes) const {
    std::uint32_t value = 0;
    for (std::size_t i = bytes; i-- > 0;) value = value << 8 | (*this)[position + i];
    return value;
  }
  bool Has(std::size_t position, std::string_view text) const {
    return size_ >= position + text.size() &&
           std::equal(text.begin(), text.end(), data_ + position,
                      [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
};

// Markers of ITU-T T.81, table B.1.
constexpr std::uint8_t kStartOfFrame0 = 0xC0, kStartOfFrame15 = 0xCF;
constexpr std::uint8_t kHuffmanTables = 0xC4, kReserved = 0xC8, kArithmeticTables = 0xCC;
constexpr std::uint8_t kRestart0 = 0xD0, kRestart7 = 0xD7;
constexpr std::uint8_t kStartOfImage = 0xD8, kEndOfImage = 0xD9;

bool StartsFrame(std::uint8_t marker) {
  return marker >= kStartOfFrame0 && marker <= kStartOfFrame15 && marker != kHuffmanTables &&
         marker != kReserved && marker != kArithmeticTables;
}

// Whether the byte after 0xFF makes a marker that ends coded data or follows a segment.
bool IsMarker(std::uint8_t byte) {
  return byte != 0x00 && byte != 0xFF && (byte < kRestart0 || byte > kRestart7);
}

// Returns: the position of the next marker's second byte, past coded data and fill bytes.
std::size_t NextMarker(const Bytes& file, std::size_t position) {
  for (;; ++position) {
    const std::uint8_t* prefix = std::find(file.At(position), file.end(), 0xFF);
    position = static_cast<std::size_t>(prefix - file.At(0)) + 1;
    if (position >= file.size()) throw Failure("the JPEG file is truncated");
    if (IsMarker(file[position])) return position;
    --position;  // 0xFF may follow 0xFF
  }
}

void ReadFrameHeader(const Bytes& file, std::size_t marker, FileHeader& header) {
  header.height = file.BigEndian(marker + 4, 2);
  header.width = file.BigEndian(marker + 6, 2);
  if (file[marker + 8] == 4) throw Failure("JPEG files with four components (CMYK) are not read");
}

FileHeader ReadJpeg(const Bytes& file) {
  FileHeader header{AV_CODEC_ID_MJPEG};
  std::size_t marker = NextMarker(file, 2);
  for (; file[marker] != kEndOfImage; marker = NextMarker(file, marker)) {
    if (StartsFrame(file[marker])) ReadFrameHeader(file, marker, header);
    if (file[marker] != kStartOfImage) marker += file.BigEndian(marker + 1, 2);
  }
  header.size = marker + 1;
  return header;
}

FileHeader ReadPng(const Bytes& file) {
  return {AV_CODEC_ID_PNG, file.BigEndian(16, 4), file.BigEndian(20, 4), file.size()};
}

// FFmpeg takes a file whose last row is cut for one without padding of its rows.
void CheckBmpRows(const Bytes& file, const FileHeader& header, std::uint64_t bits_per_pixel) {
  const std::uint64_t row_bytes = (header.width * bits_per_pixel + 31) / 32 * 4;
  const std::uint64_t offset = file.LittleEndian(10, 4);
  if (header.height == 0) return;  // refused later, with its size
  if (offset > file.size() || row_bytes > (file.size() - offset) / header.height) {
    throw Failure("the file is truncated");
  }
}

FileHeader ReadBmp(const Bytes& file) {
  constexpr std::uint32_t kOldHeader = 12, kRunLength8 = 1, kRunLength4 = 2;
  FileHeader header{AV_CODEC_ID_BMP, 0, 0, file.size()};
  if (file.LittleEndian(14, 4) == kOldHeader) {
    header.width = file.LittleEndian(18, 2);
    header.height = file.LittleEndian(20, 2);
    CheckBmpRows(file, header, file.LittleEndian(24, 2));
    return header;
  }
  header.width = file.LittleEndian(18, 4);
  const std::uint32_t height = file.LittleEndian(22, 4);
  header.height = std::min(height, 0 - height);  // negative when the top row comes first
  const std::uint32_t compression = file.LittleEndian(30, 4);
  if (compression != kRunLength8 && compression != kRunLength4) {
    CheckBmpRows(file, header, file.LittleEndian(28, 2));
  }
  return header;
}

FileHeader ReadWebp(const Bytes& file) {
  FileHeader header{AV_CODEC_ID_WEBP, 0, 0, file.size()};
  if (file.Has(12, "VP8 ")) {
    header.width = file.LittleEndian(26, 2) & 0x3FFF;
    header.height = file.LittleEndian(28, 2) & 0x3FFF;
  } else if (file.Has(12, "VP8L")) {
    const std::uint32_t sizes = file.LittleEndian(21, 4);
    header.width = (sizes & 0x3FFF) + 1;
    header.height = (sizes >> 14 & 0x3FFF) + 1;
  } else if (file.Has(12, "VP8X")) {
    header.width = std::uint64_t{file.LittleEndian(24, 3)} + 1;
    header.height = std::uint64_t{file.LittleEndian(27, 3)} + 1;
  }
  return header;
}

}  // namespace

FileHeader ReadFileHeader(const std::uint8_t* data, std::size_t size) {
  const Bytes file(data, size);
  if (file.Has(0, "\xFF\xD8\xFF")) return ReadJpeg(file);
  if (file.Has(0, "\x89PNG\r\n\x1A\n")) return ReadPng(file);
  if (file.Has(0, "BM")) return ReadBmp(file);
  if (file.Has(0, "RIFF") && file.Has(8, "WEBP")) return ReadWebp(file);
  throw Failure("the data is neither JPEG, PNG, BMP nor WebP");
}

}  // namespace qx::utils::image::engine
