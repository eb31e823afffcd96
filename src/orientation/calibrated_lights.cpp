// Calibrated orientation: the fixed lamp ring and the Lambertian solve per pixel.
#include "orientation/calibrated_lights.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "base/vectors.h"
#include "orientation/image_count.h"
#include "orientation/image_piece.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

using Matrix3 = std::array<std::array<float, 3>, 3>;

struct Angle {
  int degrees;
  float sine;
  float cosine;
};

// Degrees taken as radians; deliberate: every calibrated result depends on it. Written out, because
// libraries and compilers compute some of these with another last digit.
constexpr Angle kAngles[] = {
    {0, 0x0p+0F, 0x1p+0F},
    {45, 0x1.b3a9ap-1F, 0x1.0cf7p-1F},
    {51, 0x1.572848p-1F, 0x1.7bfba2p-1F},
    {60, -0x1.382046p-2F, -0x1.e7a2acp-1F},
    {72, 0x1.03ea46p-2F, -0x1.ef3b78p-1F},
    {90, 0x1.c9b9eep-1F, -0x1.cad3dp-2F},
    {102, 0x1.fd59fp-1F, 0x1.a01854p-4F},
    {120, 0x1.2945dep-1F, 0x1.a0dc54p-1F},
    {135, 0x1.69f548p-4F, -0x1.fdff3ap-1F},
    {144, -0x1.f6ce5ep-2F, 0x1.be0708p-1F},
    {153, 0x1.9ce08ap-1F, -0x1.2ec802p-1F},
    {180, -0x1.9a30aep-1F, -0x1.32695cp-1F},
    {204, 0x1.9df148p-3F, -0x1.f56ec4p-1F},
    {216, 0x1.6461c8p-1F, -0x1.6f9bbep-1F},
    {225, -0x1.dc3566p-1F, 0x1.782292p-2F},
    {240, 0x1.e41164p-1F, 0x1.4d999ep-2F},
    {255, -0x1.0345c4p-1F, -0x1.b97fdcp-1F},
    {270, -0x1.688ac8p-3F, 0x1.f800eap-1F},
    {288, -0x1.b604acp-1F, 0x1.091c8p-1F},
    {300, -0x1.ffep-1F, -0x1.6a07fp-6F},
    {306, -0x1.e85374p-1F, -0x1.33c6fep-2F},
    {315, 0x1.7d821cp-1F, 0x1.5575f6p-1F},
};

const Angle& AngleOf(int degrees) {
  return *std::find_if(std::begin(kAngles), std::end(kAngles),
                       [&](const Angle& angle) { return angle.degrees == degrees; });
}

std::array<float, 3> LampVector(const Angle& slant, const Angle& azimuth) {
  const float x = azimuth.cosine * slant.sine;
  const float y = -(azimuth.sine * slant.sine);
  const float z = slant.cosine;
  const float norm = std::sqrt(y * y + x * x + z * z);
  return {x / norm, y / norm, z / norm};
}

// L^T L
Matrix3 NormalMatrix(const LampMatrix& lamps, int image_count) {
  Matrix3 m = {};
  for (size_t r = 0; r < 3; ++r) {
    for (size_t c = 0; c < 3; ++c) {
      for (size_t k = 0; k < static_cast<size_t>(image_count); ++k) {
        m[r][c] += lamps[k][r] * lamps[k][c];
      }
    }
  }
  return m;
}

// Adjugate over determinant. False: the determinant is too small or negative.
bool Invert(const Matrix3& m, Matrix3& inverse) {
  const float det = m[2][2] * (m[1][1] * m[0][0]) - m[2][1] * (m[1][2] * m[0][0]) -
                    m[2][2] * (m[1][0] * m[0][1]) + m[2][0] * (m[1][2] * m[0][1]) +
                    m[2][1] * (m[1][0] * m[0][2]) - m[2][0] * (m[1][1] * m[0][2]);
  if (det < 1e-7F) return false;
  const float r = 1.0F / det;
  inverse[0][0] = (m[2][2] * m[1][1] - m[2][1] * m[1][2]) * r;
  inverse[0][1] = -((m[2][2] * m[0][1] - m[2][1] * m[0][2]) * r);
  inverse[0][2] = (m[1][2] * m[0][1] - m[1][1] * m[0][2]) * r;
  inverse[1][0] = -((m[2][2] * m[1][0] - m[2][0] * m[1][2]) * r);
  inverse[1][1] = (m[2][2] * m[0][0] - m[2][0] * m[0][2]) * r;
  inverse[1][2] = -((m[1][2] * m[0][0] - m[1][0] * m[0][2]) * r);
  inverse[2][0] = (m[2][1] * m[1][0] - m[2][0] * m[1][1]) * r;
  inverse[2][1] = -((m[2][1] * m[0][0] - m[2][0] * m[0][1]) * r);
  inverse[2][2] = (m[1][1] * m[0][0] - m[1][0] * m[0][1]) * r;
  return true;
}

// Calls visit(j, rho^2, g) for the pixels of a row: g = (L^T L)^-1 (L^T I), rho = |g|.
template <int kImages, typename Visitor>
void SolveRow(const uint8_t* const (&bytes)[kImages], const LampMatrix& lamps,
              const Matrix3& inverse, int64_t cols, Visitor visit) {
  ForEachBlock(0, cols, [&](int64_t j, auto zero) {
    using V = decltype(zero);
    V b[3];
    for (size_t r = 0; r < 3; ++r) b[r] = Load<V>(bytes[0] + j) * lamps[0][r];
    for (size_t k = 1; k < kImages; ++k) {
      const auto intensity = Load<V>(bytes[k] + j);
      for (size_t r = 0; r < 3; ++r) b[r] = b[r] + intensity * lamps[k][r];
    }
    V g[3];
    for (size_t r = 0; r < 3; ++r) {
      g[r] = b[0] * inverse[r][0] + b[1] * inverse[r][1] + b[2] * inverse[r][2];
    }
    visit(j, g[1] * g[1] + g[0] * g[0] + g[2] * g[2], g);
  });
}

class CalibratedLights : public LightStage {
 public:
  CalibratedLights(const ImagePiece& frame, const LampMatrix& lamps, const Matrix3& inverse)
      : frame_(frame), lamps_(lamps), inverse_(inverse) {}

  void WriteRow(int64_t i, const MapRow& out) const override {
    // The largest float below 1e-6: an albedo up to here counts as 0.
    constexpr float kLargestDark = 1e-6F;
    static_assert(double{kLargestDark} < 1e-6);
    Solve(i, [&](int64_t j, auto squared_rho, const auto& g) {
      const auto rho = Sqrt(squared_rho);
      const decltype(squared_rho) zero = 0.0F;
      Store(out.factor + j, rho);
      Store(out.slope_p + j, IfGreater(rho, kLargestDark, g[0] / rho, zero));
      Store(out.slope_q + j, IfGreater(rho, kLargestDark, g[1] / rho, zero));
      Store(out.gated_factor + j, IfGreater(rho, kLargestDark, g[2] / rho, zero));
    });
  }

  // The rounded root is monotone: two roots do for all pixels.
  Range FactorRange(float* scratch) override {
    Range squares;
    for (int64_t i = 0; i < frame_.rows(); ++i) {
      Solve(i, [&](int64_t j, auto squared_rho, const auto& /*g*/) {
        Store(scratch + j, squared_rho);
      });
      MinMaxOfMap(scratch, frame_.cols(), squares);
    }
    return {Sqrt(squares.min), Sqrt(squares.max)};
  }

 private:
  template <typename Visitor>
  void Solve(int64_t i, Visitor visit) const {
    WithImageCount(frame_.image_count, [&](auto image_count) {
      constexpr int kImages = decltype(image_count)::value;
      const uint8_t* bytes[kImages];
      for (int k = 0; k < kImages; ++k) bytes[k] = frame_.At(k, i, 0);
      SolveRow<kImages>(bytes, lamps_, inverse_, frame_.cols(), visit);
    });
  }

  const ImagePiece frame_;
  const LampMatrix lamps_;
  const Matrix3 inverse_;
};

}  // namespace

LampMatrix LampRing(int image_count) {
  constexpr int kSlant = 45;
  constexpr std::array<int, 3> kThreeLamps = {315, 225, 135};
  // Whole degrees, so that seven lamps leave a wider gap at the end; deliberate.
  const int step = 360 / image_count;
  LampMatrix lamps = {};
  for (int i = 0; i < image_count; ++i) {
    const auto lamp = static_cast<size_t>(i);
    const int azimuth = image_count == 3 ? kThreeLamps[lamp] : i * step;
    lamps[lamp] = LampVector(AngleOf(kSlant), AngleOf(azimuth));
  }
  return lamps;
}

std::unique_ptr<LightStage> SolveCalibratedLights(const UnCalibrationTool& tool) {
  const ImagePiece frame = PieceOfFrame(tool, 0, tool.rows, 0, tool.cols);
  const LampMatrix lamps = LampRing(frame.image_count);
  Matrix3 inverse = {};
  if (!Invert(NormalMatrix(lamps, frame.image_count), inverse)) return nullptr;
  return std::make_unique<CalibratedLights>(frame, lamps, inverse);
}

}  // namespace velostrix
