#include "tools/pictures/point_cloud.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qx::tools {
namespace {

using utils::stereo::Point;

static_assert(sizeof(Point) == 16 && offsetof(Point, confidence) == 15, "written as it is");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the header of the file says so");

std::string HeaderOf(std::size_t points, bool with_confidence, const std::string& comment) {
  std::string header = "ply\nformat binary_little_endian 1.0\ncomment " + comment +
                       "\nelement vertex " + std::to_string(points) + '\n';
  for (const char* name : {"x", "y", "z"}) header += std::string("property float ") + name + '\n';
  for (const char* name : {"red", "green", "blue", "confidence"}) {
    if (!with_confidence && name[0] == 'c') continue;
    header += std::string("property uchar ") + name + '\n';
  }
  return header + "end_header\n";
}

}  // namespace

void WritePly(const std::vector<Point>& points, bool with_confidence, const std::string& comment,
              OutputFile& file) {
  std::string header = HeaderOf(points.size(), with_confidence, comment);
  if (with_confidence) {
    auto* const bytes = const_cast<Point*>(points.data());  // writev() only reads it
    return file.Write({{header.data(), header.size()}, {bytes, points.size() * sizeof(Point)}});
  }
  const std::size_t size = offsetof(Point, confidence);
  std::vector<std::uint8_t> bytes(points.size() * size);
  std::uint8_t* next = bytes.data();
  for (const Point& point : points) {
    std::memcpy(next, &point, size);
    next += size;
  }
  file.Write({{header.data(), header.size()}, {bytes.data(), bytes.size()}});
}

}  // namespace qx::tools
