// Uncalibrated orientation: the images' intensities factored by a singular value decomposition.
//
// Under distant lamps the intensities of a Lambertian surface, pixels x images, are the product of
// its scaled normals and the lamps (Hayakawa 1994): a matrix of rank 3, whose first three left
// singular vectors span the normals. They determine these up to a linear map; for an integrable
// surface a generalised bas-relief transformation is left (Belhumeur, Kriegman and Yuille 1999).
// Plain counterparts: bench/reference/reference_factorisation.cpp.
#pragma once

#include <cstdint>
#include <memory>

#include "orientation/light_stage.h"

struct UnCalibrationTool;

namespace velostrix {

// All need a tool whose buffers hold its images. From the first three singular vectors (x0, x1, x2)
// at a pixel come factor x0, slope P x1 / x0, slope Q -x2 / x0 and gated factor x0. Signs are the
// decomposition's. Row 0 is a copy of row 1. Out of memory: std::bad_alloc.

// The matrix pixels x images of the whole frame, of three pixels or more. Slopes are 0 where |x0|
// is at most 1e-6. Keeps the matrix in tool.intensity_matrix; writes time_fill_ms (the matrix) and
// time_svd_ms (inner products and decomposition).
std::unique_ptr<LightStage> FactorizeIntensities(UnCalibrationTool& tool);

// The matrices images x pixels of pieces, of three pixels or more each. Slopes and gated factor are
// 0 where |x0| <= 1e-7. The run mirrors the factor map about the middle of its range.

// Bands of `band` whole rows; every band keeps the signs of its own decomposition.
std::unique_ptr<LightStage> FactorizeIntensitiesPartRows(const UnCalibrationTool& tool,
                                                         int64_t band);

// Strips of `band` whole columns, each repeating the last column of the one before; the signs of a
// strip's vectors are aligned with the strip before at row 1 of that column. Two rows or more.
std::unique_ptr<LightStage> FactorizeIntensitiesPartCols(const UnCalibrationTool& tool,
                                                         int64_t band);

}  // namespace velostrix
