// Checks the parts of a batch before the first one is run.
#include "apps/batch_check.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <optional>

#include "apps/commands.h"
#include "apps/exif_orientation.h"
#include "apps/image_header.h"
#include "apps/input_images.h"
#include "apps/output_files.h"
#include "apps/part.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {
namespace {

namespace fs = std::filesystem;

std::string Text(cv::Size size) {
  return std::to_string(size.width) + " x " + std::to_string(size.height) + " pixels";
}

// The size of the part's images, if their headers have it. Throws Failure or Error for faults.
std::optional<cv::Size> CheckPart(const Part& part, const BatchPlan& plan,
                                  bool may_leave_bits_open) {
  const Recipe& recipe = part.record.recipe;
  const RunOptions& options = part.record.options;
  std::vector<std::string> files = part.files;
  files.insert(files.end(), plan.flat.begin(), plan.flat.end());
  std::optional<cv::Size> size;
  for (const std::string& file : files) {
    const std::string refusal = WhyUnreadable(file);
    if (!refusal.empty()) throw Failure(refusal);
    const std::optional<ImageHeader> header = ReadImageHeader(file);
    if (!header) continue;
    if (size && header->size != *size) {
      throw Failure(file + ": " + Text(header->size) + ", the others " + Text(*size));
    }
    size = header->size;
    if (header->is_deep && WhiteLevel(recipe) == 0 && !may_leave_bits_open) {
      throw Failure(file +
                    ": 16-bit samples, and the recipe leaves open how many bits are in use; "
                    "give the run.json of a part, or --choose-gains");
    }
  }
  const bool may_be_turned = size && (recipe.parameters.region || !part.mask.empty());
  if (may_be_turned && ExifOrientation(ReadBytes(part.files.front(), "")) > 4) {
    size = cv::Size(size->height, size->width);
  }
  const size_t given = options.reading.split_channels ? 3 : part.files.size();
  const size_t count = options.choose == 0 ? given : std::min<size_t>(given, options.choose);
  if (size) Check(static_cast<int>(count), *size, recipe.parameters);
  if (options.choose == 0) CheckFlat(recipe, static_cast<int64_t>(count));
  if (size && !part.mask.empty() && part.mask.size() != *size) {
    throw Failure(options.mask + ": " + Text(part.mask.size()) + ", the images " + Text(*size));
  }
  std::error_code ignored;
  const fs::path inputs = fs::path(part.files.front()).parent_path();
  if (fs::equivalent(inputs.empty() ? "." : inputs, part.out, ignored)) {
    throw Failure(part.out + ": has the images, and would have the results; give another --out");
  }
  const OutputFiles can_be_written(PlanOutputs(part));
  return size;
}

}  // namespace

int64_t CheckParts(const std::vector<ManifestPart>& parts, const BatchPlan& plan,
                   bool may_leave_bits_open, std::vector<std::string>& problems) {
  int64_t most = 0;
  for (const ManifestPart& entry : parts) {
    try {
      const Part part = BeginPart(entry, plan);
      const cv::Size size = CheckPart(part, plan, may_leave_bits_open).value_or(cv::Size());
      most = std::max(most, int64_t{size.width} * size.height);
    } catch (const std::exception& e) {
      problems.push_back(entry.place + ": part " + entry.name + ": " + e.what());
    }
  }
  return most;
}

}  // namespace velostrix::cli
