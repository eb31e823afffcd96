// Least-squares height by conjugate gradients that never form a matrix.
#pragma once

#include <cstdint>

namespace velostrix {

// A problem of rows x cols unknowns, both at least 1. Maps share one stride, in elements.
struct HeightProblem {
  int64_t rows;
  int64_t cols;
  int64_t stride;
  const float* p;         // z[i][j + 1] - z[i][j] wanted
  const float* q;         // z[i][j] - z[i + 1][j] wanted
  int32_t iteration_cap;  // negative: twice the number of unknowns
};

// Writes the solution to z and returns the number of finished iterations. The bytes of z do not
// depend on the number of threads.
int64_t SolveHeight(const HeightProblem& problem, float* z);

}  // namespace velostrix
