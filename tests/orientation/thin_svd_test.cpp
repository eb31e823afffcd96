// The decompositions whose signs and round-off the runs show, bit by bit those of Eigen.
#include "orientation/thin_svd.h"

#include <gtest/gtest.h>

#include <random>

namespace velostrix {
namespace {

using Eigen::MatrixXf;

// What images give: noise, all alike, rank two, black, and few pixels that are not.
enum Content { kNoise, kConstant, kRankTwo, kBlack, kSparse, kContents };

MatrixXf Intensities(int pixels, int images, int content) {
  std::mt19937 random(1);
  return MatrixXf::NullaryExpr(pixels, images, [&](Eigen::Index j, Eigen::Index k) {
    const auto noise = static_cast<float>(random() % 256);
    const float levels[kContents] = {noise, 7.0F, static_cast<float>(j % 5 + j % 3 * k), 0.0F,
                                     noise < 8.0F ? noise : 0.0F};
    return levels[content];
  });
}

TEST(ThinSvd, EveryBitIsEigens) {
  for (const int pixels : {3, 8, 15, 16, 17, 300}) {
    for (const int images : {3, 5, 8}) {
      for (int content = 0; content < kContents; ++content) {
        SCOPED_TRACE(testing::Message() << pixels << " x " << images << ", content " << content);
        const MatrixXf tall = Intensities(pixels, images, content);
        for (const MatrixXf& matrix : {tall, MatrixXf(tall.transpose())}) {
          constexpr int kThin = Eigen::ComputeThinU | Eigen::ComputeThinV;
          const Eigen::JacobiSVD<MatrixXf> expected(matrix, kThin);
          const JacobiSvd<MatrixXf> found(matrix, kThin);
          EXPECT_EQ(found.matrixU(), expected.matrixU());
          EXPECT_EQ(found.matrixV(), expected.matrixV());
          EXPECT_EQ(found.singularValues(), expected.singularValues());
        }
        if (pixels < 16) continue;  // BDCSVD is JacobiSVD there
        const Eigen::BDCSVD<MatrixXf> expected(tall.transpose(), Eigen::ComputeThinV);
        const BlockwiseSvd<MatrixXf> found(tall);
        EXPECT_EQ(found.long_side, expected.matrixV());
        EXPECT_EQ(found.singular_values, expected.singularValues());
      }
    }
  }
}

}  // namespace
}  // namespace velostrix
