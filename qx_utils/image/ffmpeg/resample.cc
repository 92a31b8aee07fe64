#include "qx_utils/image/ffmpeg/resample.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "qx_utils/image/ffmpeg/planes.h"

namespace qx::utils::image::engine {
namespace {

constexpr double kCubicParameter = -0.6;

// The inputs of one output: consecutive ones from `first` on. A cubic's four may lie past the ends.
// Those of a mean have weight 1 / width, except for the first and the last.
struct Taps {
  int first = 0;
  int count = 0;
  bool cubic = false;
  std::array<double, 4> weights{};  // of a mean: first, inner, last

  double Weight(int tap) const {
    if (cubic) return weights[static_cast<std::size_t>(tap)];
    if (tap == 0) return weights[0];
    return tap == count - 1 ? weights[2] : weights[1];
  }
};

double Cubic(double distance) {
  const double x = std::abs(distance);
  constexpr double a = kCubicParameter;
  if (x < 1) return ((a + 2) * x - (a + 3)) * x * x + 1;
  return x < 2 ? ((x - 5) * x + 8) * x * a - 4 * a : 0;
}

Taps CubicTaps(double center) {
  Taps taps{static_cast<int>(std::floor(center)) - 1, 4, true, {}};
  for (int tap = 0; tap < 4; ++tap) {
    taps.weights[static_cast<std::size_t>(tap)] = Cubic(center - (taps.first + tap));
  }
  return taps;
}

// In units of 1 / target of an input, in which all borders are whole numbers.
Taps MeanTaps(std::int64_t output, std::int64_t source, std::int64_t target) {
  const std::int64_t begin = output * source, end = begin + source;
  const std::int64_t first = begin / target, last = (end - 1) / target;
  const auto weight = [source](std::int64_t length) {
    return static_cast<double>(length) / static_cast<double>(source);
  };
  return {static_cast<int>(first),
          static_cast<int>(last - first + 1),
          false,
          {weight(std::min(end, (first + 1) * target) - begin), weight(target),
           weight(end - last * target), 0}};
}

Taps TapsOf(int output, int source, int target) {
  if (target < source) return MeanTaps(output, source, target);
  return CubicTaps((output + 0.5) * source / target - 0.5);
}

template <typename T>
T Value(double value) {
  constexpr double kMax = std::numeric_limits<T>::max();
  return static_cast<T>(std::clamp(std::floor(value + 0.5), 0.0, kMax));
}

template <typename T>
const T* RowOf(const Plane& plane, int y) {
  return reinterpret_cast<const T*>(plane.Row(y));
}

template <typename T>
void ColumnOf(const Plane& source, const Taps& taps, const Plane& target, int x) {
  const int last = source.width - 1;
  for (int y = 0; y < target.height; ++y) {
    const T* from = RowOf<T>(source, y);
    T* to = reinterpret_cast<T*>(target.Row(y)) + x * target.values;
    for (int value = 0; value < target.values; ++value) {
      double sum = 0;
      for (int tap = 0; tap < taps.count; ++tap) {
        const int column = std::clamp(taps.first + tap, 0, last);
        sum += taps.Weight(tap) * from[column * source.values + value];
      }
      to[value] = Value<T>(sum);
    }
  }
}

template <typename T>
void RowFrom(const Plane& source, const Taps& taps, std::vector<double>& sums, T* to) {
  std::fill(sums.begin(), sums.end(), 0.0);
  for (int tap = 0; tap < taps.count; ++tap) {
    const T* from = RowOf<T>(source, std::clamp(taps.first + tap, 0, source.height - 1));
    const double weight = taps.Weight(tap);
    for (std::size_t i = 0; i < sums.size(); ++i) sums[i] += weight * from[i];
  }
  std::transform(sums.begin(), sums.end(), to, Value<T>);
}

template <typename T>
void Columns(const Plane& source, const Plane& target) {
  for (int x = 0; x < target.width; ++x) {
    ColumnOf<T>(source, TapsOf(x, source.width, target.width), target, x);
  }
}

template <typename T>
void Rows(const Plane& source, const Plane& target) {
  std::vector<double> sums(static_cast<std::size_t>(target.width * target.values));
  for (int y = 0; y < target.height; ++y) {
    RowFrom<T>(source, TapsOf(y, source.height, target.height), sums,
               reinterpret_cast<T*>(target.Row(y)));
  }
}

using PlaneFunction = void (*)(const Plane&, const Plane&);

void ForEachPlane(const PictureView& source, const PictureView& target, PlaneFunction bytes,
                  PlaneFunction words) {
  const Planes from = PlanesOf(source), to = PlanesOf(target);
  for (std::size_t i = 0; i < static_cast<std::size_t>(to.count); ++i) {
    (to.plane[i].value_bytes == 1 ? bytes : words)(from.plane[i], to.plane[i]);
  }
}

}  // namespace

void ResampleColumns(const PictureView& source, const PictureView& target) {
  ForEachPlane(source, target, Columns<std::uint8_t>, Columns<std::uint16_t>);
}

void ResampleRows(const PictureView& source, const PictureView& target) {
  ForEachPlane(source, target, Rows<std::uint8_t>, Rows<std::uint16_t>);
}

}  // namespace qx::utils::image::engine
