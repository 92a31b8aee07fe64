// Cuts the middle out of a picture file, shrinks it and writes it as JPEG: picture INPUT OUTPUT
#include <qxtools/ffmpeg_media_proc.h>
#include <qxtools/media_proc.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

namespace image = qx::utils::image;
using Box = velkar::vision::BBox_<float>;
using Frame = std::shared_ptr<velkar::vision::ImageFrame>;

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  std::ifstream input(argv[1], std::ios::binary);
  const std::vector<char> file{std::istreambuf_iterator<char>(input), {}};

  // Once per process. A board installs its own engine here; nothing below changes.
  image::InstallFfmpegMediaProc();
  constexpr int kDevice = 0;

  const auto* bytes = reinterpret_cast<const unsigned char*>(file.data());
  const Frame picture = image::Decode(bytes, file.size(), kDevice);
  if (picture == nullptr) return 1;  // the log says why

  // The corners of a box belong to it: 0 .. width - 1 is the whole row.
  const float width = static_cast<float>(picture->Width());
  const float height = static_cast<float>(picture->Height());
  const std::vector<Box> middle = {
      Box(width / 4, height / 4, 3 * width / 4 - 1, 3 * height / 4 - 1)};
  const std::vector<Frame> cut = image::Crop(picture, middle, 160, 120, true, kDevice);
  if (cut.empty()) return 1;

  image::EncodeParams params;
  params.quality = 85;
  const std::vector<unsigned char> jpeg =
      image::Encode(cut.front(), image::kImageFileFormatJpeg, params, kDevice);
  std::ofstream output(argv[2], std::ios::binary);
  output.write(reinterpret_cast<const char*>(jpeg.data()),
               static_cast<std::streamsize>(jpeg.size()));
  return jpeg.empty() || !output ? 1 : 0;
}
