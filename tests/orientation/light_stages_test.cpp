// The light stages against the plain decompositions and the plain solve. Where both work on the
// same matrices, in small pieces, every bit is the same, between the rows and behind the frame too.
#include <Eigen/SVD>
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>

#include "orientation/calibrated_lights.h"
#include "orientation/factorize_intensities.h"
#include "orientation/gram_matrix.h"
#include "orientation/leading_vectors.h"
#include "pipeline/run.h"
#include "support/frames_and_planes.h"

namespace velostrix {
namespace {

// Factor, slopes p and q, gated factor.
struct LightMaps {
  explicit LightMaps(const UnCalibrationTool& tool) : maps(4, GuardedPlane<float>(tool)) {}

  std::vector<GuardedPlane<float>> maps;
};

void ExpectSame(const LightMaps& actual, const LightMaps& expected) {
  for (size_t m = 0; m < 4; ++m)
    EXPECT_TRUE(actual.maps[m].SameAs(expected.maps[m])) << "map " << m;
}

// Runs the stage and the plain one on the tool's images. Only the full frame keeps its matrix. The
// range is that of the map.
void RunBoth(RunKind kind, UnCalibrationTool& tool, int32_t band, LightMaps& actual,
             LightMaps& expected) {
  const std::unique_ptr<LightStage> rows = RunLightStage(tool, kind, band);
  std::vector<float> scratch(static_cast<size_t>(tool.cols));
  const Range range = rows->FactorRange(scratch.data());
  Range of_rows;
  auto& m = actual.maps;
  for (int64_t i = 0; i < tool.rows; ++i) {
    rows->WriteRow(i, {&m[0](i, 0), &m[1](i, 0), &m[2](i, 0), &m[3](i, 0)});
    MinMaxOfMap(&m[0](i, 0), tool.cols, of_rows);
  }
  EXPECT_EQ(range.min, of_rows.min);
  EXPECT_EQ(range.max, of_rows.max);
  const reference::Workspace plain = PlainRun(tool, {}, kind, band).workspace;
  const std::vector<float>* const plain_maps[] = {&plain.factor_map, &plain.slope_p, &plain.slope_q,
                                                  &plain.gated_factor_map};
  for (size_t k = 0; k < 4; ++k) {
    expected.maps[k].Fill([&](int64_t i, int64_t j) {
      return (*plain_maps[k])[static_cast<size_t>(i * tool.row_step + j)];
    });
  }
  ASSERT_EQ(tool.intensity_matrix.size(), plain.intensity_matrix.size());
  EXPECT_EQ(tool.intensity_matrix, plain.intensity_matrix);
}

void ExpectEveryBit(RunKind kind, UnCalibrationTool& tool, int32_t band) {
  LightMaps actual(tool), expected(tool);
  RunBoth(kind, tool, band, actual, expected);
  ExpectSame(actual, expected);
}

// Some strips meet at black pixels, which say nothing about their signs.
TEST(LightStages, SmallPiecesEqualThePlainOnes) {
  for (const RunKind kind : kAllRuns) {
    for (Geometry geometry : NarrowFrames()) {
      if (geometry.rows * geometry.cols < 3) continue;
      for (geometry.image_count = 3; geometry.image_count <= 8; ++geometry.image_count) {
        SCOPED_TRACE(testing::Message() << kind << ", " << geometry);
        ExpectEveryBit(kind, *NoisyTool(geometry, 29), 10);
      }
    }
  }
}

// The pixel that strips share is zero in the second one's first vectors, and not in the first's.
TEST(LightStages, StripsAreNotAlignedByZeros) {
  for (uint32_t seed = 1; seed <= 4; ++seed) {
    const ToolPtr tool = NoisyTool({30, 20, 20, 4}, seed);
    for (int64_t row = 0; row < 30; ++row) std::fill_n(&PixelOf(*tool, 3, row, 9), 11, uint8_t{0});
    for (int64_t k = 0; k < 4; ++k) PixelOf(*tool, k, 1, 9) = k == 3 ? 200 : 0;
    ExpectEveryBit(RunKind::kPartCols, *tool, 10);
  }
}

// The last image is dark but for a pixel that the other lamps reach too, and one pixel of every
// level that they do not: the first entries of those lie on both sides of the gate.
TEST(LightStages, SlopesAndGatedFactorEndAtTheGate) {
  for (const RunKind kind : {RunKind::kUncalibrated, RunKind::kPartRows, RunKind::kPartCols}) {
    SCOPED_TRACE(kind);
    const ToolPtr tool = NoisyTool({25, 40, 40, 4}, 5);
    std::fill_n(&PixelOf(*tool, 3, 0, 0), tool->plane_size, uint8_t{0});
    for (int64_t k = 0; k < 3; ++k) PixelOf(*tool, k, 24, 39) = 100;
    PixelOf(*tool, 3, 24, 39) = kind == RunKind::kUncalibrated ? 10 : 1;
    for (int64_t level = 0; level < 256; ++level) {
      for (int64_t k = 0; k < 3; ++k) PixelOf(*tool, k, 2, level) = 0;
      PixelOf(*tool, 3, 2, level) = static_cast<uint8_t>(level);
    }
    LightMaps actual(*tool), expected(*tool);
    RunBoth(kind, *tool, 40, actual, expected);
    ExpectSame(actual, expected);
    const float* slopes = &actual.maps[1](2, 0);
    const auto refused = std::count(slopes, slopes + 256, 0.0F);
    EXPECT_TRUE(refused > 10 && refused < 246) << refused;
  }
}

// Entries of all pixels, one vector a column.
Eigen::MatrixXf EntriesOf(const LeadingVectors& vectors) {
  const ImagePiece& piece = vectors.piece();
  Eigen::MatrixXf entries(piece.pixels(), 3);
  for (int64_t row = 0; row < piece.rows(); ++row) {
    vectors.Visit(row, 0, piece.cols(), [&](int64_t j, auto x0, auto x1, auto x2) {
      float* const entry = &entries(row * piece.cols() + j, 0);
      Store(entry, x0);
      Store(entry + piece.pixels(), x1);
      Store(entry + 2 * piece.pixels(), x2);
    });
  }
  return entries;
}

// Unit vectors u at right angles with |A^T u| = s for the largest singular values s are left
// singular vectors, whichever of the many that frames of a broken station may have. The loss is
// that of exact inner products in double for s = 5e-6 s1.
TEST(LeadingVectors, OfBrokenFramesAreSingularVectors) {
  struct Scene {
    const char* name;
    std::array<int, 4> shown;  // image in the place of each; -1: black
    void (*change)(UnCalibrationTool& tool) = [](auto&) {};
  };
  const Scene scenes[] = {
      {"black", {-1, -1, -1, -1}},
      {"one image", {0, 0, 0, 0}},
      {"two images, the others black", {0, 1, -1, -1}},
      {"two images in turn", {0, 1, 0, 1}},
      {"equal singular values",
       {-1, -1, -1, -1},
       [](auto& t) {
         for (int64_t row = 0; row < t.rows; ++row) {
           std::fill_n(&PixelOf(t, row % t.image_count, row, 0), t.cols, uint8_t{100});
         }
       }},
      {"third singular value 6e-6 of the first",
       {},
       [](auto& t) {
         std::fill_n(t.image_stack, t.image_count * t.plane_size, uint8_t{255});
         PixelOf(t, 0, 5, 0) = 0;
         PixelOf(t, 1, 9, 0) = 254;
       }},
  };
  const double loss = 4 * std::numeric_limits<double>::epsilon() / std::pow(5e-6, 2);
  for (const Scene& scene : scenes) {
    for (const Geometry& g : {Geometry{240, 260, 263, 4}, {240, 260, 260, 3}, {62400, 1, 1, 4}}) {
      const ToolPtr tool = NoisyTool(g, 41);
      for (int64_t k = 0; k < g.image_count; ++k) {
        const int shown = scene.shown[static_cast<size_t>(k)];
        uint8_t* const image = &PixelOf(*tool, k, 0, 0);
        const auto size = static_cast<size_t>(tool->plane_size);
        if (shown < 0) std::memset(image, 0, size);
        if (shown >= 0) std::memmove(image, &PixelOf(*tool, shown, 0, 0), size);
      }
      scene.change(*tool);
      const ImagePiece piece = PieceOfFrame(*tool, 0, g.rows, 0, g.cols);
      const auto intensities = IntensityRows<Eigen::MatrixXd>(piece, piece.pixels());
      const Eigen::MatrixXd products = intensities.transpose() * intensities;
      const Eigen::Vector3d singular_values =
          Eigen::JacobiSVD<Eigen::MatrixXd>(intensities).singularValues().head(3);
      for (const auto decomposition :
           {Decomposition::kPixelsByImages, Decomposition::kImagesByPixels,
            Decomposition::kImagesByPixelsBlockwise}) {
        SCOPED_TRACE(testing::Message()
                     << scene.name << ", " << g << ", way " << static_cast<int>(decomposition));
        const Eigen::MatrixXf entries = EntriesOf(DecomposePiece(piece, products, decomposition));
        EXPECT_EQ(EntriesOf(DecomposePiece(piece, products, decomposition)), entries);
        const Eigen::MatrixXd u = entries.cast<double>();
        EXPECT_TRUE((u.transpose() * u).isIdentity(loss)) << u.transpose() * u;
        const Eigen::Vector3d lengths = (intensities.transpose() * u).colwise().norm();
        EXPECT_LE((lengths - singular_values).norm(), loss * singular_values[0]) << lengths;
      }
    }
  }
}

struct StageCase {
  RunKind kind;
  Geometry geometry;
  int32_t band;
  bool is_aligned = true;  // not: row 1, where strips are, is black
};

// Every addition over the pixels rounds; together they turn a vector by sqrt(pixels) roundings,
// times the ratio of the first singular value to the gap that the vector's own has (Wedin 1972),
// which is below 25 in these scenes.
TEST(LightStages, LargePiecesHaveThePlainVectorsAndSigns) {
  constexpr RunKind kFrame = RunKind::kUncalibrated;
  constexpr RunKind kRows = RunKind::kPartRows;
  constexpr RunKind kCols = RunKind::kPartCols;
  const StageCase cases[] = {{kFrame, {25, 41, 41}, 0},     {kFrame, {150, 80, 85}, 0},
                             {kFrame, {2, 700, 700}, 0},    {kFrame, {1500, 1, 1}, 0},
                             {kRows, {47, 70, 73}, 16},     {kRows, {40, 90, 90}, 1 << 30},
                             {kRows, {2, 800, 800}, 10},    {kCols, {90, 48, 51}, 16},
                             {kCols, {2, 1500, 1500}, 700}, {kCols, {60, 90, 90}, 30, false}};
  for (StageCase c : cases) {
    for (int64_t n = 3; n <= 8; ++n) {
      c.geometry.image_count = n;
      SCOPED_TRACE(testing::Message()
                   << c.kind << ", " << c.geometry << ", band " << c.band << ", seed " << n);
      const ToolPtr tool = NoisyTool(c.geometry, static_cast<uint32_t>(n));
      for (int64_t k = 0; k < n && !c.is_aligned; ++k) {
        std::fill_n(&PixelOf(*tool, k, 1, 0), tool->cols, uint8_t{0});
      }
      LightMaps actual(*tool), expected(*tool);
      RunBoth(c.kind, *tool, c.band, actual, expected);
      std::array<double, 4> squares = {};
      for (int64_t i = 0; i < tool->rows; ++i) {
        for (int64_t j = 0; j < tool->cols; ++j) {
          const float x0 = actual.maps[3](i, j);
          const float plain_x0 = expected.maps[3](i, j);
          for (size_t m = 0; m < 4; ++m) {
            // Slopes are quotients by x0.
            const bool is_slope = m == 1 || m == 2;
            const double value = actual.maps[m](i, j) * (is_slope ? x0 : 1.0F);
            const double plain = expected.maps[m](i, j) * (is_slope ? plain_x0 : 1.0F);
            squares[m] += std::pow(value - plain, 2);
            actual.maps[m](i, j) = expected.maps[m](i, j);
          }
        }
      }
      const double turn = 25 * std::numeric_limits<float>::epsilon() *
                          std::sqrt(static_cast<double>(tool->rows * tool->cols));
      for (const double difference : squares) EXPECT_LT(std::sqrt(difference), turn);
      ExpectSame(actual, expected);  // nothing else is written
    }
  }
}

// Exact also where 32 bits would not hold the sums: of many whole blocks, and of many rows' rests.
TEST(GramMatrix, HoldsTheInnerProducts) {
  struct Case {
    int64_t rows, cols, first_col;
    bool white;
  };
  for (const Case& c : {Case{1, 7, 0, true}, Case{2, 11, 3, false}, Case{5, 66, 1, false},
                        Case{20000, 7, 0, true}, Case{4, 65542, 5, true}}) {
    for (int64_t n = 3; n <= 8; ++n) {
      SCOPED_TRACE(testing::Message() << c.cols << " x " << c.rows << ", " << n << " images");
      const ToolPtr tool = NoisyTool({c.rows, c.cols, c.cols + 2, n}, 3);
      if (c.white) std::fill_n(tool->image_stack, n * tool->plane_size, uint8_t{255});
      const ImagePiece piece = PieceOfFrame(*tool, 0, c.rows, c.first_col, c.cols);
      GramAccumulator gram(piece);
      for (int64_t row = 0; row < c.rows; ++row) gram.AddRow(row);
      const auto intensities = IntensityRows<Eigen::MatrixXd>(piece, piece.pixels());
      EXPECT_EQ(gram.Products(), intensities.transpose() * intensities);
    }
  }
}

// To the last digit on every processor. Libraries round the sine of the fourth of four differently.
TEST(CalibratedLights, LampsStandAtWholeRadians) {
  struct Case {
    int count;
    size_t lamp;
    std::array<float, 3> expected;
  };
  for (const Case& c : {Case{3, 0, {0x1.228cd8p-1F, -0x1.44a07p-1F, 0x1.0cf7p-1F}},
                        Case{3, 1, {0x1.400dfep-2F, 0x1.953524p-1F, 0x1.0cf702p-1F}},
                        Case{3, 2, {-0x1.b1f54ep-1F, -0x1.33fddp-4F, 0x1.0cf7p-1F}},
                        Case{4, 3, {0x1.acdbcp-1F, 0x1.32c95cp-3F, 0x1.0cf7p-1F}},
                        Case{7, 1, {0x1.43542ep-1F, -0x1.23fe6ap-1F, 0x1.0cf7p-1F}},
                        Case{7, 6, {-0x1.05e388p-2F, 0x1.9f84bp-1F, 0x1.0cf7p-1F}}}) {
    EXPECT_EQ(LampRing(c.count)[c.lamp], c.expected) << "lamp " << c.lamp << " of " << c.count;
  }
  for (int count = 3; count <= 8; ++count) {
    const auto plain = reference::LampRing(count);
    for (size_t k = 0; k < plain.size(); ++k) {
      for (size_t axis = 0; axis < 3; ++axis) {
        EXPECT_NEAR(LampRing(count)[k][axis], plain[k][axis], 2e-7F) << k << " of " << count;
      }
    }
  }
}

}  // namespace
}  // namespace velostrix
