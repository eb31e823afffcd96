/// @file
/// Gains that make the result images readable without tuning. Header-only, C++17.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <opencv2/core.hpp>
#include <vector>

#include "velostrix/tool.hpp"

namespace velostrix {
namespace auto_gain_detail {

/// How far an image's levels reach from its zero level, without the outermost percent at both ends.
struct Reach {
  int below = 0;
  int above = 0;
  int Widest() const { return std::max(below, above); }
};

/// mask: not 0 for pixels that count; or empty.
inline Reach MeasureReach(const cv::Mat& image, int zero_level, const cv::Mat& mask = {}) {
  // Neighbours are often equal: counted in turn, none waits for the count of the one before.
  std::array<std::array<int64_t, 4>, 256> counts = {};
  for (int i = 0; i < image.rows; ++i) {
    const auto* row = image.ptr<uint8_t>(i);
    const auto* in_mask = mask.empty() ? nullptr : mask.ptr<uint8_t>(i);
    for (int j = 0; j < image.cols; ++j) {
      if (in_mask == nullptr || in_mask[j] != 0) ++counts[row[j]][static_cast<size_t>(j & 3)];
    }
  }
  std::array<int64_t, 256> histogram = {};
  for (size_t level = 0; level < histogram.size(); ++level) {
    histogram[level] = std::accumulate(counts[level].begin(), counts[level].end(), int64_t{0});
  }
  const int64_t pixels =
      mask.empty() ? static_cast<int64_t>(image.total()) : cv::countNonZero(mask);
  if (pixels == 0) return {};
  const int64_t percent = pixels / 100;
  size_t low = 0;
  for (int64_t count = histogram[low]; count <= percent;) count += histogram[++low];
  size_t high = 255;
  for (int64_t count = histogram[high]; count <= percent;) count += histogram[--high];
  return {std::max(0, zero_level - static_cast<int>(low)),
          std::max(0, static_cast<int>(high) - zero_level)};
}

/// The search for the gain of one output.
struct Search {
  Output output;
  double usual_gain;
  double gain;
  int zero_level;  ///< offset of the pilots
  Reach reach;     ///< in the latest pilot
  bool is_readable = false;
  bool is_done = false;

  int FullReach() const { return 255 - zero_level; }
  int TargetReach() const { return 240 - zero_level; }

  void Learn(const cv::Mat& image, const cv::Mat& mask) {
    constexpr double kStride = 16.0;
    constexpr int kReadableReach = 4;
    constexpr int kPreciseReach = 32;      // one level is 3 percent
    constexpr double kMostGrowth = 256.0;  // beyond it, differences are quantisation, not relief
    reach = MeasureReach(image, zero_level, mask);
    const bool is_saturated = reach.Widest() >= FullReach();
    is_readable = !is_saturated && reach.Widest() >= kReadableReach;
    if (is_readable) {
      is_done = reach.Widest() >= kPreciseReach;
      gain *= static_cast<double>(TargetReach()) / reach.Widest();
    } else if (is_saturated) {
      gain /= kStride;
    } else if (gain >= kMostGrowth * usual_gain) {
      is_done = true;
    } else {
      gain *= kStride;
    }
  }

  OutputScaling Found() const {
    if (!is_readable) return {zero_level, usual_gain};
    const bool is_brightness =
        output == Output::kChannel2 && std::min(reach.below, reach.above) == 0;
    if (!is_brightness) return {zero_level, gain};
    constexpr double kWholeRange = 240.0;
    return {0, gain * kWholeRange / TargetReach() * (reach.above > 0 ? 1.0 : -1.0)};
  }
};

}  // namespace auto_gain_detail

/// Returns the parameters with gain and offset chosen for these images, for every output that they
/// enable. Left alone: outputs in `keep`, and factor, normal and height. Without the outermost
/// percent on each side, the values fill grey levels 16 to 240 around 128; those of the magnitude
/// fill 0 to 240. So does channel 2 when all its values have one sign (a brightness), by a negative
/// gain if necessary. A flat map gets the gain that suits usual relief.
///
/// Makes pilot runs without height: 2 or 3 as a rule, 8 at most. Choose once for a kind of part and
/// keep the parameters: only results with equal gains can be compared. orientation, unless null,
/// receives what FindOrientation returns for these images: a run on them need not measure it.
[[nodiscard]] inline Parameters ChooseGains(Tool& tool, const std::vector<cv::Mat>& images,
                                            Parameters parameters, OutputSet keep = {},
                                            OrientationFound* orientation = nullptr) {
  constexpr int kMostPilots = 8;
  Check(images, parameters);
  const OutputSet outputs = WithChannels(parameters.outputs);

  const cv::Size size = WorkingSize(images.front().size(), parameters);
  const double pixels = static_cast<double>(size.width) * size.height;
  std::vector<auto_gain_detail::Search> searches;
  for (const Output output : kAllOutputs) {
    if (!outputs.Contains(output) || keep.Contains(output)) continue;
    if (Scaling(parameters, output) == nullptr) continue;
    // A singular vector has unit length.
    const bool is_unit_vector = output == Output::kChannel2 && parameters.run != Run::kCalibrated;
    const double usual_gain = is_unit_vector ? 64.0 * std::sqrt(pixels) : 128.0;
    searches.push_back(
        {output, usual_gain, usual_gain, output == Output::kMagnitude ? 0 : 128, {}});
  }

  if (searches.empty() && orientation == nullptr) return parameters;
  const OrientationFound found = tool.FindOrientation(images, parameters);
  if (orientation != nullptr) *orientation = found;
  cv::Mat mask = tool.mask();
  if (!mask.empty() && parameters.region) mask = mask(*parameters.region);
  Parameters pilot = parameters;
  for (int k = 0; k < kMostPilots; ++k) {
    pilot.outputs = {};
    for (const auto& search : searches) {
      if (search.is_done) continue;
      pilot.outputs.Add(search.output);
      *Scaling(pilot, search.output) = {search.zero_level, search.gain};
    }
    if (pilot.outputs.IsEmpty()) break;
    const Results results = tool.ReconstructViews(images, pilot, &found);
    for (auto& search : searches) {
      if (!search.is_done) search.Learn(results[search.output], mask);
    }
  }
  for (const auto& search : searches) *Scaling(parameters, search.output) = search.Found();
  return parameters;
}

}  // namespace velostrix
