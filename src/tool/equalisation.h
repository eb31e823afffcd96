// Brightness equalisation: every column of an image is shifted to a common mean level.
#pragma once

#include <opencv2/core/mat.hpp>
#include <vector>

namespace velostrix {

// Replaces column_levels by the mean of each column of the 8-bit source, rounded to 8 bits, and
// sets mean_level to their average. False, mean_level 0 and no levels: the source has no columns.
bool ColumnLevels(const cv::Mat& source, double& mean_level, std::vector<double>& column_levels);

// Shifts every column j of the 8-bit single-channel source by the whole number
// trunc(target - column_levels[j]), saturating, into destination, which becomes CV_8UC1 of the
// source's size where it is not. The target is reference_level when that lies in 0..255 and
// column_levels holds one level a column already, else the mean of the source's own levels.
// column_levels is replaced. False, nothing changed: the source is empty or has several channels.
bool EqualiseBrightness(std::vector<double>& column_levels, const cv::Mat& source,
                        cv::Mat& destination, double reference_level);

}  // namespace velostrix
