/// @file
/// Reads and writes recipes: parameters as JSON files that every language and the command line
/// share. Header-only, C++17; velostrix_host.h documents the fields of a recipe.
#pragma once

#include <algorithm>
#include <cmath>
#include <iterator>
#include <numeric>
#include <string>
#include <vector>

#include "velostrix/auto_gain.hpp"
#include "velostrix/flat_field.hpp"
#include "velostrix/tool.hpp"
#include "velostrix/velostrix_host.h"

namespace velostrix {

/// Parameters, and what else a recipe has.
struct Recipe {
  Parameters parameters;   ///< what a run does
  OutputSet kept_gains;    ///< outputs whose gain ChooseGains leaves alone, and the offset with it
  OutputSet kept_offsets;  ///< outputs whose offset ChooseGains leaves alone
  int bits = 0;            ///< bits in use of 16-bit samples, 8 to 16; 0: not given
  int white = 0;           ///< the 16-bit sample that is white; 0: 2^bits - 1
  std::vector<FlatField> flat;  ///< one for each lamp, its images are divided by it; may be empty
};

namespace recipe_detail {

constexpr int32_t kNoLamp = -1;

inline uint32_t ToBits(const OutputSet& outputs) {
  uint32_t bits = 0;
  for (const Output output : kAllOutputs) {
    if (outputs.Contains(output)) bits |= VELOSTRIX_OUTPUT_BIT(static_cast<unsigned>(output));
  }
  return bits;
}

inline OutputSet ToOutputs(uint32_t bits, const char* name) {
  if ((bits & ~VELOSTRIX_ALL_OUTPUTS) != 0) {
    throw Error(std::string(name) + " has bits that are no output; expected those below " +
                std::to_string(VELOSTRIX_ALL_OUTPUTS + 1));
  }
  OutputSet outputs;
  for (const Output output : kAllOutputs) {
    if ((bits & VELOSTRIX_OUTPUT_BIT(static_cast<unsigned>(output))) != 0) outputs.Add(output);
  }
  return outputs;
}

template <size_t N>
void RequireOneOf(int32_t value, const char* name, const std::array<const char*, N>& choices) {
  if (value >= 0 && value < static_cast<int32_t>(N)) return;
  std::string text = std::string(name) + ' ' + std::to_string(value) + "; expected 0 to " +
                     std::to_string(N - 1) + ", that is";
  for (const char* choice : choices) text += std::string(" ") + choice;
  throw Error(text);
}

}  // namespace recipe_detail

/// The 16-bit sample that becomes 255; 0 when the recipe does not give it.
[[nodiscard]] inline int WhiteLevel(const Recipe& recipe) {
  if (recipe.white != 0) return recipe.white;
  return recipe.bits == 0 ? 0 : (1 << recipe.bits) - 1;
}

/// The record of the flat interface as a recipe. Throws Error for settings that fit no images.
[[nodiscard]] inline Recipe FromRecord(const VelostrixSettings& record) {
  using namespace recipe_detail;
  if (record.struct_size != sizeof record) {
    throw Error("settings of " + std::to_string(record.struct_size) + " bytes; expected " +
                std::to_string(sizeof record) + ", set struct_size");
  }
  RequireOneOf(record.run, "run", kRunNames);
  RequireOneOf(record.difference, "difference", kDifferenceNames);
  RequireOneOf(record.orientation, "orientation", kOrientationNames);
  if (record.bits != 0 && (record.bits < 8 || record.bits > 16)) {
    throw Error("bits " + std::to_string(record.bits) + "; expected 8 to 16, or 0 for not said");
  }
  if (record.white < 0 || record.white > 65535) {
    throw Error("white " + std::to_string(record.white) +
                "; expected 1 to 65535, or 0 for not said");
  }
  if (record.flat_count != 0) CheckCount(record.flat_count);
  Recipe recipe;
  Parameters& p = recipe.parameters;
  p.run = static_cast<Run>(record.run);
  p.band = record.band;
  p.outputs = ToOutputs(record.outputs, "outputs");
  if (record.has_region != 0) {
    const VelostrixRegion& r = record.region;
    p.region = cv::Rect(r.x, r.y, r.width, r.height);
  }
  p.scale = record.scale;
  p.equalise = record.equalise != 0;
  p.difference = static_cast<Difference>(record.difference);
  p.blur_radius = record.blur_radius;
  p.iteration_cap = record.iteration_cap;
  p.orientation = static_cast<Orientation>(record.orientation);
  if (record.lamp != kNoLamp) p.lamp = LampHint{record.lamp, record.lamp_degrees};
  for (const Output output : kAllOutputs) {
    const auto k = static_cast<size_t>(output);
    if (double* const gain = Gain(p, output)) *gain = record.gain[k];
    if (OutputScaling* const scaling = Scaling(p, output)) scaling->offset = record.offset[k];
  }
  recipe.kept_gains = ToOutputs(record.kept_gains, "kept_gains");
  recipe.kept_offsets = ToOutputs(record.kept_offsets, "kept_offsets");
  recipe.bits = record.bits;
  recipe.white = record.white;
  for (int32_t lamp = 0; lamp < record.flat_count; ++lamp) {
    FlatField& field = recipe.flat.emplace_back();
    std::copy(std::begin(record.flat[lamp]), std::end(record.flat[lamp]), field.begin());
    if (!std::isfinite(std::accumulate(field.begin(), field.end(), 0.0))) {
      throw Error("a coefficient of flat is not finite; expected a number");
    }
  }
  Check(p);
  return recipe;
}

/// The recipe as the record of the flat interface.
[[nodiscard]] inline VelostrixSettings ToRecord(const Recipe& recipe) {
  const Parameters& p = recipe.parameters;
  VelostrixSettings record = {};
  record.struct_size = sizeof record;
  record.run = static_cast<int32_t>(p.run);
  record.band = p.band;
  record.outputs = recipe_detail::ToBits(p.outputs);
  record.has_region = p.region ? 1 : 0;
  if (p.region) record.region = {p.region->x, p.region->y, p.region->width, p.region->height};
  record.equalise = p.equalise ? 1 : 0;
  record.scale = p.scale;
  record.difference = static_cast<int32_t>(p.difference);
  record.blur_radius = p.blur_radius;
  record.iteration_cap = p.iteration_cap;
  record.orientation = static_cast<int32_t>(p.orientation);
  record.lamp = p.lamp ? p.lamp->image : recipe_detail::kNoLamp;
  record.lamp_degrees = p.lamp ? p.lamp->degrees : 0.0;
  record.bits = recipe.bits;
  record.white = recipe.white;
  record.flat_count = static_cast<int32_t>(recipe.flat.size());
  for (size_t lamp = 0; lamp < recipe.flat.size(); ++lamp) {
    std::copy(recipe.flat[lamp].begin(), recipe.flat[lamp].end(), record.flat[lamp]);
  }
  for (const Output output : kAllOutputs) {
    const auto k = static_cast<size_t>(output);
    if (const double* const gain = Gain(p, output)) record.gain[k] = *gain;
    if (const OutputScaling* const s = Scaling(p, output)) record.offset[k] = s->offset;
  }
  record.kept_gains = recipe_detail::ToBits(recipe.kept_gains);
  record.kept_offsets = recipe_detail::ToBits(recipe.kept_offsets);
  return record;
}

/// Converts the image of a lamp to what a run takes (CV_8UC1), divided by the lamp's flat field
/// where the recipe has one. image: CV_8UC1, or CV_16UC1 where the recipe has the white level or
/// the bits. Returns the image itself where nothing is to be done. Throws Error, whose text begins
/// with the name.
[[nodiscard]] inline cv::Mat ToLevels(const cv::Mat& image, const Recipe& recipe, size_t lamp,
                                      const std::string& name) {
  const bool is_flattened = lamp < recipe.flat.size();
  if (image.depth() == CV_8U) return is_flattened ? Flatten(image, recipe.flat[lamp]) : image;
  if (recipe.white == 0 && recipe.bits == 0) {
    throw Error(name + " has 16-bit samples; expected their white level (white) or how many bits " +
                "are in use (bits)");
  }
  if (recipe.white == 0) RequireBits(image, recipe.bits, name);
  const int white = WhiteLevel(recipe);
  return is_flattened ? Flatten(image, recipe.flat[lamp], white) : ToEightBits(image, white);
}

/// Throws Error when the recipe has flat fields for another number of images.
inline void CheckFlat(const Recipe& recipe, int64_t count) {
  if (recipe.flat.empty() || recipe.flat.size() == static_cast<size_t>(count)) return;
  throw Error(std::to_string(count) + " images given, but flat has the fields of " +
              std::to_string(recipe.flat.size()) + " lamps; expected one for each image");
}

/// Reads the text of a recipe or of a run.json. Throws Error, whose text names the field.
[[nodiscard]] inline Recipe ParseRecipe(const std::string& text) {
  VelostrixSettings record = {};
  record.struct_size = sizeof record;
  VelostrixMessage message = {};
  const VelostrixStatus status =
      VelostrixSettingsFromJson(text.data(), static_cast<int64_t>(text.size()), &record, &message);
  if (status != VELOSTRIX_OK) throw Error(message.text);
  return FromRecord(record);
}

/// The text of a recipe. It has the gains and offsets that are kept, and others that are not the
/// default: reading it gives the same parameters. Throws Error for settings that fit no images.
[[nodiscard]] inline std::string WriteRecipe(const Recipe& recipe) {
  const VelostrixSettings record = ToRecord(recipe);
  VelostrixMessage message = {};
  std::string text(VELOSTRIX_LONGEST_RECIPE, '\0');
  int64_t length = 0;
  const VelostrixStatus status = VelostrixSettingsToJson(
      &record, text.data(), static_cast<int64_t>(text.size()), &length, &message);
  if (status != VELOSTRIX_OK) throw Error(message.text);
  text.resize(static_cast<size_t>(length));
  return text;
}

/// The recipe with gains and offsets chosen for these images where none are kept; those chosen are
/// then kept. See auto_gain.hpp.
[[nodiscard]] inline Recipe ChooseGains(Tool& tool, const std::vector<cv::Mat>& images,
                                        Recipe recipe, OrientationFound* orientation = nullptr) {
  const Parameters given = recipe.parameters;
  recipe.parameters = ChooseGains(tool, images, given, recipe.kept_gains, orientation);
  const OutputSet made = WithChannels(given.outputs);
  for (const Output output : kAllOutputs) {
    OutputScaling* const scaling = Scaling(recipe.parameters, output);
    if (scaling == nullptr) continue;
    if (recipe.kept_offsets.Contains(output)) scaling->offset = Scaling(given, output)->offset;
    if (!made.Contains(output) || recipe.kept_gains.Contains(output)) continue;
    recipe.kept_gains.Add(output);
    recipe.kept_offsets.Add(output);
  }
  return recipe;
}

}  // namespace velostrix
