// The lamp ring and the Lambertian least-squares solve, pixel by pixel in single precision.
#include <cmath>

#include "reference/reference_stages.h"

namespace velostrix::reference {
namespace {

using Matrix3 = std::array<std::array<float, 3>, 3>;

Matrix3 NormalMatrix(const std::vector<std::array<float, 3>>& lamps) {
  Matrix3 m{};
  for (size_t r = 0; r < 3; ++r) {
    for (size_t c = 0; c < 3; ++c) {
      for (const auto& lamp : lamps) m[r][c] += lamp[r] * lamp[c];
    }
  }
  return m;
}

Matrix3 Inverse(const Matrix3& m) {
  const float det = m[2][2] * (m[1][1] * m[0][0]) - m[2][1] * (m[1][2] * m[0][0]) -
                    m[2][2] * (m[1][0] * m[0][1]) + m[2][0] * (m[1][2] * m[0][1]) +
                    m[2][1] * (m[1][0] * m[0][2]) - m[2][0] * (m[1][1] * m[0][2]);
  const float r = 1.0F / det;
  return {
      {{(m[2][2] * m[1][1] - m[2][1] * m[1][2]) * r, -((m[2][2] * m[0][1] - m[2][1] * m[0][2]) * r),
        (m[1][2] * m[0][1] - m[1][1] * m[0][2]) * r},
       {-((m[2][2] * m[1][0] - m[2][0] * m[1][2]) * r), (m[2][2] * m[0][0] - m[2][0] * m[0][2]) * r,
        -((m[1][2] * m[0][0] - m[1][0] * m[0][2]) * r)},
       {(m[2][1] * m[1][0] - m[2][0] * m[1][1]) * r, -((m[2][1] * m[0][0] - m[2][0] * m[0][1]) * r),
        (m[1][1] * m[0][0] - m[1][0] * m[0][1]) * r}}};
}

}  // namespace

std::vector<std::array<float, 3>> LampRing(int image_count) {
  const int three[3] = {315, 225, 135};
  std::vector<std::array<float, 3>> lamps;
  for (int i = 0; i < image_count; ++i) {
    // Whole numbers of radians, deliberately. Volatile, because a compiler that evaluates sines and
    // cosines itself rounds some of them differently from the run-time library.
    const volatile float slant = 45.0F;
    const volatile float azimuth =
        static_cast<float>(image_count == 3 ? three[i] : i * (360 / image_count));
    const float x = std::cos(azimuth) * std::sin(slant);
    const float y = -(std::sin(azimuth) * std::sin(slant));
    const float z = std::cos(slant);
    const float n = std::sqrt(y * y + x * x + z * z);
    lamps.push_back({x / n, y / n, z / n});
  }
  return lamps;
}

void SolveCalibratedLights(const Frame& frame, const WorkingMaps& maps) {
  const std::vector<std::array<float, 3>> lamps = LampRing(frame.image_count);
  const Matrix3 inverse = Inverse(NormalMatrix(lamps));
  for (int64_t i = 0; i < frame.rows; ++i) {
    for (int64_t j = 0; j < frame.cols; ++j) {
      float b[3] = {};
      for (int k = 0; k < frame.image_count; ++k) {
        const auto intensity = static_cast<float>(frame.Intensity(k, i, j));
        for (size_t r = 0; r < 3; ++r) b[r] += intensity * lamps[static_cast<size_t>(k)][r];
      }
      float g[3];
      for (size_t r = 0; r < 3; ++r) {
        g[r] = inverse[r][0] * b[0] + inverse[r][1] * b[1] + inverse[r][2] * b[2];
      }
      const float albedo = std::sqrt(g[1] * g[1] + g[0] * g[0] + g[2] * g[2]);
      const bool black = std::fabs(static_cast<double>(albedo)) < 1e-6;
      const int64_t o = frame.At(i, j);
      maps.factor[o] = albedo;
      maps.slope_p[o] = black ? 0.0F : g[0] / albedo;
      maps.slope_q[o] = black ? 0.0F : g[1] / albedo;
      maps.gated_factor[o] = black ? 0.0F : g[2] / albedo;
    }
  }
}

}  // namespace velostrix::reference
