// What the tests of the light stages share: maps, refusals, round-off bounds, degenerate scenes.
#include "orientation/light_stage_checks.h"

#include <omp.h>

#include <Eigen/Eigenvalues>
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <map>
#include <utility>

#include "support/scenes.h"

namespace velostrix {
namespace {

constexpr double kEpsilon = std::numeric_limits<float>::epsilon();

// How far single precision may move the entries of a piece's first three singular vectors.
struct EntryBounds {
  std::array<double, 3> anywhere;
  // The first pixels, one per image: their entries are what remains of numbers near 1.
  std::array<double, 3> at_first_pixels;
};

Eigen::VectorXd SingularValues(UnCalibrationTool& tool, const FramePiece& piece) {
  const int64_t n = tool.image_count;
  Eigen::MatrixXd gram = Eigen::MatrixXd::Zero(n, n);
  Eigen::VectorXd pixel(n);
  for (int64_t r = piece.first_row; r < piece.end_row; ++r) {
    for (int64_t c = piece.first_col; c < piece.end_col; ++c) {
      for (int64_t k = 0; k < n; ++k) pixel[k] = PixelOf(tool, k, r, c);
      gram += pixel * pixel.transpose();
    }
  }
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(gram, Eigen::EigenvaluesOnly);
  return solver.eigenvalues().reverse().cwiseMax(0.0).cwiseSqrt();
}

// Every addition over the pixels rounds; together they are like an error of sqrt(pixels) roundings
// of the largest singular value in the matrix, which turns vector v towards the others by its ratio
// to the gap between their singular values (Wedin 1972).
EntryBounds BoundEntries(UnCalibrationTool& tool, const FramePiece& piece, const LightMaps& maps) {
  double largest_entry = 0.0;
  for (int64_t r = piece.first_row; r < piece.end_row; ++r) {
    for (int64_t c = piece.first_col; c < piece.end_col; ++c) {
      const double slopes = std::hypot(1.0, static_cast<double>(maps.slope_p(r, c)),
                                       static_cast<double>(maps.slope_q(r, c)));
      largest_entry = std::max(largest_entry, std::fabs(maps.gated_factor(r, c)) * slopes);
    }
  }
  const Eigen::VectorXd values = SingularValues(tool, piece);
  const auto pixels =
      static_cast<double>((piece.end_row - piece.first_row) * (piece.end_col - piece.first_col));
  EntryBounds bounds{};
  for (Eigen::Index v = 0; v < 3; ++v) {
    double gap = v + 1 < values.size() ? values[v] - values[v + 1] : values[v];
    if (v > 0) gap = std::min(gap, values[v - 1] - values[v]);
    const double turn = std::sqrt(pixels) * kEpsilon * values[0] / gap;
    EXPECT_LT(turn, 0.02) << "the scene does not determine vector " << v;
    bounds.anywhere[static_cast<size_t>(v)] = turn * largest_entry;
    bounds.at_first_pixels[static_cast<size_t>(v)] = turn;
  }
  return bounds;
}

struct DegenerateScene {
  const char* name;
  uint8_t (*level)(int64_t k, int64_t row, int64_t col, uint8_t random_level);
};
constexpr DegenerateScene kDegenerateScenes[] = {
    {"black", [](int64_t, int64_t, int64_t, uint8_t) { return uint8_t{0}; }},
    {"saturated", [](int64_t, int64_t, int64_t, uint8_t) { return uint8_t{255}; }},
    {"one odd pixel",
     [](int64_t k, int64_t r, int64_t c, uint8_t) {
       return static_cast<uint8_t>(k == 2 && r == 5 && c == 7 ? 101 : 100);
     }},
    {"odd pixels",
     [](int64_t k, int64_t r, int64_t c, uint8_t) {
       return static_cast<uint8_t>((r * 31 + c * 7 + k) % 97 == 0 ? 101 : 100);
     }},
    {"all but one image black",
     [](int64_t k, int64_t, int64_t, uint8_t level) { return k == 1 ? level : uint8_t{0}; }},
    {"two images, the others black",
     [](int64_t k, int64_t, int64_t, uint8_t level) { return k < 2 ? level : uint8_t{0}; }},
    {"black rows and columns",
     [](int64_t, int64_t r, int64_t c, uint8_t level) {
       return r / 10 == 1 || c / 10 == 2 ? uint8_t{0} : level;
     }},
    {"random", [](int64_t, int64_t, int64_t, uint8_t level) { return level; }},
};

void ExpectFinite(const UnCalibrationTool& tool, const LightMaps& maps) {
  for (const auto* map : {&maps.factor, &maps.slope_p, &maps.slope_q, &maps.gated_factor}) {
    for (int64_t r = 0; r < tool.rows; ++r) {
      for (int64_t c = 0; c < tool.cols; ++c) ASSERT_TRUE(std::isfinite((*map)(r, c)));
    }
  }
}

void ExpectHarmless(const LightStage& stage, UnCalibrationTool& tool) {
  const int threads_before = omp_get_max_threads();
  LightMaps first(tool);
  EXPECT_EQ(stage(tool, first), 1);
  ExpectFinite(tool, first);
  for (const int threads : {1, 2, 8}) {
    omp_set_num_threads(threads);
    LightMaps again(tool);
    EXPECT_EQ(stage(tool, again), 1);
    EXPECT_TRUE(again.SameAs(first)) << threads << " threads";
  }
  omp_set_num_threads(threads_before);
}

}  // namespace

testing::AssertionResult LightMaps::SameAs(const LightMaps& expected) const {
  if (const auto same = factor.SameAs(expected.factor); !same) return same;
  if (const auto same = slope_p.SameAs(expected.slope_p); !same) return same;
  if (const auto same = slope_q.SameAs(expected.slope_q); !same) return same;
  return gated_factor.SameAs(expected.gated_factor);
}

testing::AssertionResult LightMaps::SameOutsideFrame(const LightMaps& expected) const {
  if (const auto same = factor.SameOutsideFrame(expected.factor); !same) return same;
  if (const auto same = slope_p.SameOutsideFrame(expected.slope_p); !same) return same;
  if (const auto same = slope_q.SameOutsideFrame(expected.slope_q); !same) return same;
  return gated_factor.SameOutsideFrame(expected.gated_factor);
}

void ExpectRefusal(const LightStage& stage, const Geometry& geometry,
                   const std::function<void(UnCalibrationTool&)>& spoil) {
  const ToolPtr tool = AllocatedTool(geometry);
  LightMaps maps(*tool);
  const LightMaps untouched(*tool);
  const auto timings = [&] {
    return std::array<double, 4>{tool->time_fill_ms, tool->time_svd_ms, tool->time_maps_ms,
                                 tool->time_flip_ms};
  };
  tool->time_fill_ms = tool->time_svd_ms = tool->time_maps_ms = tool->time_flip_ms = -1.0;
  const Eigen::MatrixXf matrix = Eigen::MatrixXf::Constant(2, 3, 7.0F);
  tool->intensity_matrix = matrix;
  spoil(*tool);
  const auto timings_before = timings();
  EXPECT_EQ(stage(*tool, maps), 0);
  EXPECT_TRUE(maps.SameAs(untouched));
  EXPECT_EQ(timings(), timings_before);
  EXPECT_EQ(tool->intensity_matrix, matrix);
}

void ExpectCommonRefusals(const LightStage& stage) {
  struct Case {
    const char* name;
    void (*spoil)(UnCalibrationTool& tool);
  };
  const Case cases[] = {
      {"two images", [](UnCalibrationTool& t) { t.image_count = 2; }},
      {"nine images", [](UnCalibrationTool& t) { t.image_count = 9; }},
      {"minus one image", [](UnCalibrationTool& t) { t.image_count = -1; }},
      {"more images than buffers", [](UnCalibrationTool& t) { t.image_count = 5; }},
      {"no rows", [](UnCalibrationTool& t) { t.rows = 0; }},
      {"no columns", [](UnCalibrationTool& t) { t.cols = 0; }},
      {"negative rows", [](UnCalibrationTool& t) { t.rows = -12; }},
      {"negative columns", [](UnCalibrationTool& t) { t.cols = -11; }},
      {"more rows than buffers", [](UnCalibrationTool& t) { t.rows = 13; }},
      {"more columns than the row step", [](UnCalibrationTool& t) { t.cols = 12; }},
      {"wider than buffers", [](UnCalibrationTool& t) { t.row_step = t.cols = 12; }},
      {"images further apart", [](UnCalibrationTool& t) { t.plane_size += 1; }},
      {"no buffers", [](UnCalibrationTool& t) { ReleaseImage(t); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ExpectRefusal(stage, {12, 11, 11, 4}, c.spoil);
  }
}

void ExpectSameVectors(UnCalibrationTool& tool, const LightMaps& actual, const LightMaps& expected,
                       const PieceOfPixel& piece_of_pixel) {
  std::map<std::pair<int64_t, int64_t>, EntryBounds> bounds_of_pieces;
  const bool border_copied = tool.rows > 2 && tool.cols > 2;
  for (int64_t r = border_copied ? 1 : 0; r < tool.rows; ++r) {
    for (int64_t c = 0; c < tool.cols; ++c) {
      const FramePiece piece = piece_of_pixel(r, c);
      const auto corner = std::make_pair(piece.first_row, piece.first_col);
      if (bounds_of_pieces.count(corner) == 0) {
        bounds_of_pieces[corner] = BoundEntries(tool, piece, expected);
      }
      const EntryBounds& bounds = bounds_of_pieces[corner];
      const int64_t j =
          (r - piece.first_row) * (piece.end_col - piece.first_col) + c - piece.first_col;
      const auto& bound = j < tool.image_count ? bounds.at_first_pixels : bounds.anywhere;

      const double x0 = expected.gated_factor(r, c);
      const double p = expected.slope_p(r, c);
      const double q = expected.slope_q(r, c);
      ASSERT_NEAR(actual.gated_factor(r, c), x0, bound[0]) << "row " << r << ", column " << c;
      if (x0 == 0.0) {  // black
        ASSERT_EQ(actual.slope_p(r, c), 0.0F) << "row " << r << ", column " << c;
        ASSERT_EQ(actual.slope_q(r, c), 0.0F) << "row " << r << ", column " << c;
        continue;
      }
      const double divisor = std::fabs(x0) - bound[0];
      if (divisor <= bound[0]) continue;  // nothing is known of the slopes
      ASSERT_NEAR(actual.slope_p(r, c), p, (bound[1] + std::fabs(p) * bound[0]) / divisor)
          << "row " << r << ", column " << c;
      ASSERT_NEAR(actual.slope_q(r, c), q, (bound[2] + std::fabs(q) * bound[0]) / divisor)
          << "row " << r << ", column " << c;
    }
  }
}

void ExpectBorderCopied(const UnCalibrationTool& tool, const LightMaps& maps) {
  for (const auto* map : {&maps.factor, &maps.slope_p, &maps.slope_q, &maps.gated_factor}) {
    for (int64_t c = map == &maps.factor ? 1 : 0; c < tool.cols; ++c) {
      ASSERT_EQ((*map)(0, c), (*map)(1, c)) << "column " << c;
    }
  }
}

void ExpectHarmlessOnDegenerateScenes(const LightStage& stage) {
  for (const Geometry& geometry : {Geometry{30, 40, 43, 4}, Geometry{150, 200, 200, 4},
                                   Geometry{60, 50, 50, 8}, Geometry{60, 50, 50, 3}}) {
    for (const DegenerateScene& scene : kDegenerateScenes) {
      // Each scene as it is, and with equal images in the place of the first two and of all.
      for (const int64_t equal_images : {int64_t{1}, int64_t{2}, geometry.image_count}) {
        SCOPED_TRACE(testing::Message()
                     << geometry << ", " << scene.name << ", " << equal_images << " equal images");
        const ToolPtr tool = AllocatedTool(geometry);
        RenderRandomScene(*tool, 41);
        for (int64_t k = 0; k < tool->image_count; ++k) {
          const int64_t source = k < equal_images ? 0 : k;
          for (int64_t r = 0; r < tool->rows; ++r) {
            for (int64_t c = 0; c < tool->cols; ++c) {
              PixelOf(*tool, k, r, c) = scene.level(source, r, c, PixelOf(*tool, source, r, c));
            }
          }
        }
        ExpectHarmless(stage, *tool);
      }
    }
  }
}

}  // namespace velostrix
