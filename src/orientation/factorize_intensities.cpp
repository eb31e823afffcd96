// Uncalibrated orientation: the images' intensities factored by a singular value decomposition.
#include "orientation/factorize_intensities.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "base/stopwatch.h"
#include "orientation/gram_matrix.h"
#include "orientation/leading_vectors.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

// What happens to pixels whose first entry is too small to divide by.
struct FactorGate {
  float largest_refused;  // |x0| up to here gives zero slopes
  bool zeroes_gated_factor;
};

// Compared in double with 1e-6 and 1e-7: these are the largest floats not above.
constexpr FactorGate kFullFrameGate = {1e-6F, false};
constexpr FactorGate kPartsGate = {0x1.ad7f28p-24F, true};
static_assert(double{kFullFrameGate.largest_refused} <= 1e-6);
static_assert(double{kPartsGate.largest_refused} <= 1e-7 && 1e-7F > 1e-7);

// Where the signs of neighbouring strips are compared.
constexpr int64_t kReferenceRow = 1;

// The maps of a frame from the vectors of its pieces.
class FactorizedPieces : public LightStage {
 public:
  // Pieces are bands of band_rows rows, or, with as many rows as the frame has or more, strips.
  FactorizedPieces(const UnCalibrationTool& tool, const FactorGate& gate, int64_t band_rows,
                   std::vector<LeadingVectors> pieces)
      : rows_(tool.rows),
        cols_(tool.cols),
        stride_(tool.row_step),
        gate_(gate),
        band_rows_(band_rows),
        pieces_(std::move(pieces)) {}

  void WriteRow(int64_t i, const MapRow& out) const override {
    VisitRow(i, [&](int64_t j, auto x0, auto x1, auto x2) {
      using V = decltype(x0);
      const V zero = 0.0F;
      const V magnitude = Abs(x0);
      const V largest_refused = gate_.largest_refused;
      Store(out.factor + j, x0);
      Store(out.slope_p + j, IfGreater(magnitude, largest_refused, x1 / x0, zero));
      Store(out.slope_q + j, IfGreater(magnitude, largest_refused, -(x2 / x0), zero));
      Store(out.gated_factor + j,
            IfGreater(magnitude, largest_refused, x0, gate_.zeroes_gated_factor ? zero : x0));
    });
    FinishFactorRow(i, out.factor);
  }

  Range FactorRange(float* scratch) override {
    Range range;
    for (int64_t i = 0; i < rows_; ++i) {
      VisitRow(i, [&](int64_t j, auto x0, auto /*x1*/, auto /*x2*/) { Store(scratch + j, x0); });
      FinishFactorRow(i, scratch);
      MinMaxOfMap(scratch, cols_, range);
    }
    return range;
  }

 protected:
  virtual void FinishFactorRow(int64_t i, float* factor) const {
    // The first element of the map, alone, takes the value of the second; deliberate.
    if (i == 0) factor[0] = cols_ > 1 ? factor[1] : SecondElementOfColumn();
  }

  int64_t cols() const { return cols_; }

 private:
  // Calls visit(j, x0, x1, x2) for the pixels of a row of the maps. Row 0 is a copy of row 1 in
  // frames above 2 x 2; deliberate.
  template <typename Visitor>
  void VisitRow(int64_t i, Visitor visit) const {
    const int64_t row = i == 0 && rows_ > 2 && cols_ > 2 ? 1 : i;
    const auto begin = pieces_.begin() + row / band_rows_;
    const auto end = band_rows_ < rows_ ? begin + 1 : pieces_.end();
    for (auto piece = begin; piece != end; ++piece) {
      // The column that two strips share is the later one's.
      const int64_t first_col = piece->piece().first_col;
      const int64_t end_col = piece + 1 != end ? (piece + 1)->piece().first_col : cols_;
      piece->Visit(row, first_col, end_col,
                   [&](int64_t j, auto x0, auto x1, auto x2) { visit(first_col + j, x0, x1, x2); });
    }
  }

  // Of a map one column wide the second element is that of the next row, or lies between the rows.
  float SecondElementOfColumn() const { return stride_ == 1 ? pieces_.front().At(1, 0)[0] : 0.0F; }

  int64_t rows_;
  int64_t cols_;
  int64_t stride_;
  FactorGate gate_;
  int64_t band_rows_;
  std::vector<LeadingVectors> pieces_;
};

// The parts' factor map is mirrored about the middle of its range.
class MirroredPieces : public FactorizedPieces {
 public:
  using FactorizedPieces::FactorizedPieces;

  // Rounding is monotone: the ends of the range stay its ends.
  Range FactorRange(float* scratch) override {
    const Range range = FactorizedPieces::FactorRange(scratch);
    middle_ = static_cast<float>(double{range.min + range.max} * 0.5);
    return {*middle_ - range.max, *middle_ - range.min};
  }

 protected:
  void FinishFactorRow(int64_t i, float* factor) const override {
    FactorizedPieces::FinishFactorRow(i, factor);
    if (!middle_) return;
    ForEachBlock(0, cols(), [&](int64_t j, auto zero) {
      using V = decltype(zero);
      Store(factor + j, V(*middle_) - Load<V>(factor + j));
    });
  }

 private:
  std::optional<float> middle_;
};

// A grey level in hundreds, rounded as the quotient is: 0.01 in two parts, the first short enough
// for exact products with bytes.
template <typename V>
constexpr V InHundreds(V level) {
  constexpr float kHigh = 0x1.47aep-7F;
  constexpr float kLow = 0x1.47ae14p-27F;
  return level * V(kHigh) + level * V(kLow);
}
constexpr bool RoundsAsTheQuotient() {
  for (int level = 0; level < 256; ++level) {
    if (InHundreds(static_cast<float>(level)) != static_cast<float>(level) / 100.0F) return false;
  }
  return true;
}
static_assert(RoundsAsTheQuotient());

// Column k of the matrix: image k in hundreds of grey levels. Written past the cache: nothing in a
// run reads it.
void FillMatrixRow(const ImagePiece& frame, int64_t row, Eigen::MatrixXf& intensities) {
  const int64_t cols = frame.cols();
  for (int k = 0; k < frame.image_count; ++k) {
    const uint8_t* bytes = frame.At(k, row, 0);
    float* column = &intensities(row * cols, k);
    const int64_t aligned = std::min(cols, ElementsToAlignment(column));
    for (int64_t j = 0; j < aligned; ++j) column[j] = InHundreds(Load<float>(bytes + j));
    ForEachBlock(aligned, cols, [&](int64_t j, auto zero) {
      StoreStreaming(column + j, InHundreds(Load<decltype(zero)>(bytes + j)));
    });
  }
}

// Emptied first: Eigen's failed resize would free the old block again.
void ResizeMatrix(Eigen::MatrixXf& matrix, int64_t rows, int64_t cols) {
  if (matrix.rows() == rows && matrix.cols() == cols) return;
  matrix.resize(0, 0);
  matrix.resize(rows, cols);
}

// Negates the vectors of a strip that have the opposite sign of the strip before at the pixel that
// both share. A zero on either side is opposite to nothing.
void AlignSigns(const LeadingVectors& before, int64_t row, int64_t col, LeadingVectors& strip) {
  const auto reference = before.At(row, col);
  const auto current = strip.At(row, col);
  for (size_t v = 0; v < current.size(); ++v) {
    if ((current[v] > 0 && reference[v] < 0) || (current[v] < 0 && reference[v] > 0)) {
      strip.Negate(static_cast<int>(v));
    }
  }
}

}  // namespace

std::unique_ptr<LightStage> FactorizeIntensities(UnCalibrationTool& tool) {
  const ImagePiece frame = PieceOfFrame(tool, 0, tool.rows, 0, tool.cols);
  ResizeMatrix(tool.intensity_matrix, frame.pixels(), frame.image_count);
  GramAccumulator gram(frame);
  tool.time_fill_ms = tool.time_svd_ms = 0;
  Stopwatch stopwatch;
  // Some rows at a time, which stay in the cache for both.
  constexpr int64_t kRows = 8;
  for (int64_t first = 0; first < tool.rows; first += kRows) {
    const int64_t end = std::min(first + kRows, tool.rows);
    for (int64_t i = first; i < end; ++i) FillMatrixRow(frame, i, tool.intensity_matrix);
    tool.time_fill_ms += stopwatch.Lap();
    for (int64_t i = first; i < end; ++i) gram.AddRow(i);
    tool.time_svd_ms += stopwatch.Lap();
  }
  FinishStreaming();
  std::vector<LeadingVectors> vectors = {
      DecomposePiece(frame, gram.Products(), Decomposition::kPixelsByImages)};
  tool.time_svd_ms += stopwatch.Lap();
  return std::make_unique<FactorizedPieces>(tool, kFullFrameGate, tool.rows, std::move(vectors));
}

std::unique_ptr<LightStage> FactorizeIntensitiesPartRows(const UnCalibrationTool& tool,
                                                         int64_t band) {
  std::vector<LeadingVectors> bands;
  for (int64_t start = 0; start < tool.rows; start += band) {
    const int64_t end = std::min(start + band, tool.rows);
    const ImagePiece piece = PieceOfFrame(tool, start, end, 0, tool.cols);
    GramAccumulator gram(piece);
    for (int64_t row = start; row < end; ++row) gram.AddRow(row);
    bands.push_back(DecomposePiece(piece, gram.Products(), Decomposition::kImagesByPixels));
  }
  return std::make_unique<MirroredPieces>(tool, kPartsGate, band, std::move(bands));
}

std::unique_ptr<LightStage> FactorizeIntensitiesPartCols(const UnCalibrationTool& tool,
                                                         int64_t band) {
  // Rows outside, strips inside: memory is walked in its order.
  std::vector<GramAccumulator> grams;
  for (int64_t start = 0; start < tool.cols; start += band) {
    grams.emplace_back(PieceOfFrame(tool, 0, tool.rows, std::max<int64_t>(start - 1, 0),
                                    std::min(start + band, tool.cols)));
  }
  for (int64_t row = 0; row < tool.rows; ++row) {
    for (GramAccumulator& gram : grams) gram.AddRow(row);
  }
  std::vector<LeadingVectors> strips;
  for (GramAccumulator& gram : grams) {
    const ImagePiece& piece = gram.piece();
    strips.push_back(DecomposePiece(
        piece, gram.Products(),
        strips.empty() ? Decomposition::kImagesByPixels : Decomposition::kImagesByPixelsBlockwise));
    if (strips.size() > 1) {
      AlignSigns(strips[strips.size() - 2], kReferenceRow, piece.first_col, strips.back());
    }
  }
  return std::make_unique<MirroredPieces>(tool, kPartsGate, tool.rows, std::move(strips));
}

}  // namespace velostrix
