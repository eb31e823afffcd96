// Uncalibrated factorisation by Eigen's decompositions of the whole matrix of intensities.
#include <Eigen/SVD>
#include <algorithm>
#include <cmath>

#include "reference/reference_stages.h"

namespace velostrix::reference {
namespace {

struct Piece {
  int64_t first_row, end_row;
  int64_t first_col, end_col;

  int64_t cols() const { return end_col - first_col; }
  int64_t pixels() const { return (end_row - first_row) * cols(); }
};

struct Gate {
  double largest_refused;
  bool zeroes_gated_factor;
};
constexpr Gate kFullFrameGate{1e-6, false};
constexpr Gate kPartGate{1e-7, true};

using Signs = std::array<float, 3>;
constexpr Signs kOwnSigns{1.0F, 1.0F, 1.0F};

// Images x pixels.
Eigen::MatrixXf PieceMatrix(const Frame& frame, const Piece& piece) {
  Eigen::MatrixXf matrix(frame.image_count, piece.pixels());
  for (int k = 0; k < frame.image_count; ++k) {
    int64_t j = 0;
    for (int64_t r = piece.first_row; r < piece.end_row; ++r) {
      for (int64_t c = piece.first_col; c < piece.end_col; ++c) {
        matrix(k, j++) = static_cast<float>(frame.Intensity(k, r, c));
      }
    }
  }
  return matrix;
}

// Row j of vectors belongs to pixel j of the piece.
void WriteMaps(const Frame& frame, const Piece& piece, const Eigen::MatrixXf& vectors,
               const Signs& signs, const Gate& gate, const WorkingMaps& maps) {
  int64_t j = 0;
  for (int64_t r = piece.first_row; r < piece.end_row; ++r) {
    for (int64_t c = piece.first_col; c < piece.end_col; ++c, ++j) {
      const int64_t o = frame.At(r, c);
      const float x0 = signs[0] * vectors(j, 0);
      const float x1 = signs[1] * vectors(j, 1);
      const float x2 = signs[2] * vectors(j, 2);
      const bool divisible = std::fabs(static_cast<double>(x0)) > gate.largest_refused;
      maps.factor[o] = x0;
      maps.slope_p[o] = divisible ? x1 / x0 : 0.0F;
      maps.slope_q[o] = divisible ? -(x2 / x0) : 0.0F;
      maps.gated_factor[o] = divisible || !gate.zeroes_gated_factor ? x0 : 0.0F;
    }
  }
}

void PatchBorder(const Frame& frame, const WorkingMaps& maps) {
  if (frame.cols > 2 && frame.rows > 2) {
    for (float* map : {maps.factor, maps.slope_p, maps.slope_q, maps.gated_factor}) {
      std::copy_n(map + frame.row_step, frame.cols, map);
    }
  }
  maps.factor[0] = maps.factor[1];
}

}  // namespace

void MirrorAboutMidRange(const Frame& frame, float* map) {
  float min = 0.0F;
  float max = 0.0F;
  MinMaxOfMap(frame, map, min, max);
  const float mid = static_cast<float>(static_cast<double>(min + max) * 0.5);
  for (int64_t r = 0; r < frame.rows; ++r) {
    for (int64_t c = 0; c < frame.cols; ++c) map[frame.At(r, c)] = mid - map[frame.At(r, c)];
  }
}

void FactorizeIntensities(const Frame& frame, const WorkingMaps& maps,
                          Eigen::MatrixXf& intensity_matrix) {
  intensity_matrix.resize(frame.pixels(), frame.image_count);
  for (int k = 0; k < frame.image_count; ++k) {
    for (int64_t r = 0; r < frame.rows; ++r) {
      for (int64_t c = 0; c < frame.cols; ++c) {
        intensity_matrix(r * frame.cols + c, k) =
            static_cast<float>(frame.Intensity(k, r, c)) / 100.0F;
      }
    }
  }
  const Eigen::JacobiSVD<Eigen::MatrixXf> svd(intensity_matrix, Eigen::ComputeThinU);
  const Piece whole{0, frame.rows, 0, frame.cols};
  WriteMaps(frame, whole, svd.matrixU(), kOwnSigns, kFullFrameGate, maps);
  PatchBorder(frame, maps);
}

void FactorizeIntensitiesPartRows(const Frame& frame, const WorkingMaps& maps, int64_t band) {
  for (int64_t start = 0; start < frame.rows; start += band) {
    const Piece piece{start, std::min(start + band, frame.rows), 0, frame.cols};
    const Eigen::JacobiSVD<Eigen::MatrixXf> svd(PieceMatrix(frame, piece), Eigen::ComputeThinV);
    WriteMaps(frame, piece, svd.matrixV(), kOwnSigns, kPartGate, maps);
  }
  PatchBorder(frame, maps);
  MirrorAboutMidRange(frame, maps.factor);
}

void FactorizeIntensitiesPartCols(const Frame& frame, const WorkingMaps& maps, int64_t band) {
  Signs references;  // row 1 of the last column so far
  {
    const Piece piece{0, frame.rows, 0, std::min(band, frame.cols)};
    const Eigen::JacobiSVD<Eigen::MatrixXf> svd(PieceMatrix(frame, piece), Eigen::ComputeThinV);
    for (int v = 0; v < 3; ++v) references[v] = svd.matrixV()(2 * piece.cols() - 1, v);
    WriteMaps(frame, piece, svd.matrixV(), kOwnSigns, kPartGate, maps);
  }
  for (int64_t start = band; start < frame.cols; start += band) {
    const Piece piece{0, frame.rows, start - 1, std::min(start + band, frame.cols)};
    const Eigen::BDCSVD<Eigen::MatrixXf> svd(PieceMatrix(frame, piece), Eigen::ComputeThinV);
    Signs signs;
    for (int v = 0; v < 3; ++v) {
      const float current = svd.matrixV()(piece.cols(), v);
      const bool opposed =
          (current > 0.0F && references[v] < 0.0F) || (current < 0.0F && references[v] > 0.0F);
      signs[v] = opposed ? -1.0F : 1.0F;
      references[v] = signs[v] * svd.matrixV()(2 * piece.cols() - 1, v);
    }
    WriteMaps(frame, piece, svd.matrixV(), signs, kPartGate, maps);
  }
  PatchBorder(frame, maps);
  MirrorAboutMidRange(frame, maps.factor);
}

}  // namespace velostrix::reference
