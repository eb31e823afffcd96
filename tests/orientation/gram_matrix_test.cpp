// Inner products of images: exact sums, also where 32 bits would not hold them.
#include "orientation/gram_matrix.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace velostrix {
namespace {

TEST(GramMatrix, HoldsTheExactInnerProducts) {
  struct Case {
    int64_t rows, cols, first_col;
    bool white;
  };
  std::mt19937 random(3);
  for (const Case& c :
       {Case{1, 1, 0, false}, Case{1, 7, 0, true}, Case{2, 8, 3, false}, Case{5, 65, 1, false},
        Case{700, 97, 0, true}, Case{3, 70000, 0, true}, Case{4, 65537, 5, false}}) {
    for (int images = 3; images <= 8; ++images) {
      const int64_t stride = c.first_col + c.cols + 2;
      const int64_t plane = c.rows * stride;
      std::vector<uint8_t> stack(static_cast<size_t>(plane * images));
      for (uint8_t& byte : stack) byte = c.white ? uint8_t{255} : static_cast<uint8_t>(random());
      const ImagePiece piece = {stack.data(),        plane, stride, images, 0, c.rows, c.first_col,
                                c.first_col + c.cols};
      GramAccumulator gram(piece);
      for (int64_t row = 0; row < c.rows; ++row) gram.AddRow(row);
      const Eigen::MatrixXd products = gram.Products();
      for (int a = 0; a < images; ++a) {
        for (int b = 0; b < images; ++b) {
          int64_t expected = 0;
          for (int64_t i = 0; i < c.rows; ++i) {
            for (int64_t j = c.first_col; j < piece.end_col; ++j) {
              expected += int64_t{*piece.At(a, i, j)} * *piece.At(b, i, j);
            }
          }
          ASSERT_EQ(products(a, b), static_cast<double>(expected))
              << c.cols << " x " << c.rows << ", images " << a << " and " << b << " of " << images;
        }
      }
    }
  }
}

}  // namespace
}  // namespace velostrix
