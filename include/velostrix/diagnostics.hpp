/// @file
/// Whether images are fit for reconstruction. Header-only, C++17; uses the library velostrix_host.
#pragma once

#include <memory>
#include <new>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "velostrix/recipe.hpp"
#include "velostrix/tool.hpp"
#include "velostrix/velostrix_host.h"

namespace velostrix {

/// The fields are documented in velostrix_host.h.
struct Diagnostics : VelostrixDiagnostics {
  std::vector<std::string> warnings;  ///< each says what is wrong and what to do
};

/// Measures the images of a reconstruction inside the parameters' region; for the calibrated run
/// also whether the lamps are those of its ring. names: what warnings call the images, such as file
/// names; empty: "image 1" and so on. mask: CV_8UC1, as large as the images, 0 for pixels to leave
/// out; or empty. Throws Error as Check does.
[[nodiscard]] inline Diagnostics Diagnose(const std::vector<cv::Mat>& images,
                                          const Parameters& parameters,
                                          const std::vector<std::string>& names = {},
                                          const cv::Mat& mask = {}) {
  Check(images, parameters);
  std::vector<VelostrixImage> records;
  records.reserve(images.size());
  for (const cv::Mat& image : images) {
    records.push_back(
        {image.data, static_cast<int64_t>(image.step[0]), image.cols, image.rows, 1, 0});
  }
  std::vector<const char*> texts;
  texts.reserve(names.size());
  for (const std::string& name : names) texts.push_back(name.c_str());
  if (!names.empty() && names.size() != images.size()) {
    throw Error(std::to_string(names.size()) + " names for " + std::to_string(images.size()) +
                " images; expected one for each");
  }

  VelostrixReconstructor* made = nullptr;
  if (VelostrixReconstructorCreate(&made) != VELOSTRIX_OK) throw std::bad_alloc();
  const std::unique_ptr<VelostrixReconstructor, VelostrixStatus (*)(VelostrixReconstructor*)>
      reconstructor(made, VelostrixReconstructorDestroy);
  VelostrixMessage message = {};
  const auto check = [&](VelostrixStatus status) {
    if (status == VELOSTRIX_OK) return;
    VelostrixReconstructorMessage(made, &message);
    if (status == VELOSTRIX_OUT_OF_MEMORY) throw OutOfMemory(message.text);
    throw Error(message.text);
  };
  if (!mask.empty()) {
    tool_detail::CheckImage(mask, "the mask");
    const VelostrixImage record = {
        mask.data, static_cast<int64_t>(mask.step[0]), mask.cols, mask.rows, 1, 0};
    check(VelostrixReconstructorSetMask(made, &record));
  }
  Recipe recipe;
  recipe.parameters = parameters;
  const VelostrixSettings settings = ToRecord(recipe);
  Diagnostics diagnostics = {};
  diagnostics.struct_size = sizeof(VelostrixDiagnostics);
  check(VelostrixReconstructorDiagnose(made, records.data(), static_cast<int32_t>(records.size()),
                                       &settings, texts.empty() ? nullptr : texts.data(),
                                       &diagnostics));
  for (int32_t k = 0; k < diagnostics.warning_count; ++k) {
    VelostrixReconstructorWarning(made, k, &message);
    diagnostics.warnings.emplace_back(message.text);
  }
  return diagnostics;
}

}  // namespace velostrix
