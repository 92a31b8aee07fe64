// Row-major 3 x 3 matrices and vectors of 3.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>

namespace qx::utils::stereo {

using Matrix3 = std::array<double, 9>;
using Vector3 = std::array<double, 3>;

inline constexpr Matrix3 kIdentity3 = {1, 0, 0, 0, 1, 0, 0, 0, 1};

inline Matrix3 Transpose(const Matrix3& m) {
  return {m[0], m[3], m[6], m[1], m[4], m[7], m[2], m[5], m[8]};
}

inline Vector3 Multiply(const Matrix3& m, const Vector3& v) {
  return {m[0] * v[0] + m[1] * v[1] + m[2] * v[2], m[3] * v[0] + m[4] * v[1] + m[5] * v[2],
          m[6] * v[0] + m[7] * v[1] + m[8] * v[2]};
}

inline Matrix3 Multiply(const Matrix3& a, const Matrix3& b) {
  Matrix3 product{};
  for (std::size_t row = 0; row < 3; ++row) {
    for (std::size_t column = 0; column < 3; ++column) {
      for (std::size_t k = 0; k < 3; ++k) {
        product[3 * row + column] += a[3 * row + k] * b[3 * k + column];
      }
    }
  }
  return product;
}

inline double Determinant(const Matrix3& m) {
  return m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
         m[2] * (m[3] * m[7] - m[4] * m[6]);
}

inline double Norm(const Vector3& v) { return std::hypot(v[0], v[1], v[2]); }

// Returns: the largest absolute difference of two elements.
inline double Distance(const Matrix3& a, const Matrix3& b) {
  double largest = 0;
  for (std::size_t i = 0; i < a.size(); ++i) largest = std::fmax(largest, std::fabs(a[i] - b[i]));
  return largest;
}

// Returns: the rotation about the axis `v` by |v| radians (Rodrigues' formula).
inline Matrix3 RotationOf(const Vector3& v) {
  const double angle = Norm(v);
  if (angle == 0) return kIdentity3;
  const double x = v[0] / angle, y = v[1] / angle, z = v[2] / angle;
  const double s = std::sin(angle), c = std::cos(angle), d = 1 - c;
  return {c + d * x * x,     d * x * y - s * z, d * x * z + s * y, d * x * y + s * z, c + d * y * y,
          d * y * z - s * x, d * x * z - s * y, d * y * z + s * x, c + d * z * z};
}

// Returns: the axis of a rotation of less than half a turn, times its angle in radians.
inline Vector3 RotationVectorOf(const Matrix3& r) {
  const Vector3 twice = {r[7] - r[5], r[2] - r[6], r[3] - r[1]};  // the axis * 2 sin(angle)
  const double sine = Norm(twice) / 2;
  if (sine == 0) return {};
  const double scale = std::atan2(sine, (r[0] + r[4] + r[8] - 1) / 2) / (2 * sine);
  return {twice[0] * scale, twice[1] * scale, twice[2] * scale};
}

}  // namespace qx::utils::stereo
