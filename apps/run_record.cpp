// The record of a run, which run.json contains.
#include "apps/run_record.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

#include "apps/bayer.h"
#include "velostrix/version.h"

namespace velostrix::cli {
namespace {

using Json = nlohmann::ordered_json;

Json ToJson(cv::Size size) { return {{"width", size.width}, {"height", size.height}}; }

Json Inputs(const RunRecord& record) {
  Json inputs = Json::array();
  for (size_t k = 0; k < record.inputs.size(); ++k) {
    const VelostrixExposure& exposure = record.diagnostics.exposures[k];
    inputs.push_back({{"file", record.inputs[k].file},
                      {"sha256", record.inputs[k].sha256},
                      {"conversion", record.inputs[k].note},
                      {"saturated_share", exposure.saturated_share},
                      {"black_share", exposure.black_share},
                      {"mean_level", exposure.mean_level}});
  }
  return inputs;
}

Json SingularValues(const Diagnostics& diagnostics) {
  const double* const values = diagnostics.singular_values;
  return std::vector<double>(values, values + diagnostics.image_count);
}

Json UnexplainedShare(const Diagnostics& d) {
  if (d.unexplained_by_ring < 0.0) return {};
  return {{"by_ring", d.unexplained_by_ring}, {"by_any_lamps", d.unexplained_by_any}};
}

// Negative numbers were not measured.
Json Shifts(const Diagnostics& diagnostics) {
  Json shifts = Json::array();
  for (int k = 0; k < diagnostics.image_count; ++k) {
    const double shift = diagnostics.shifts[k];
    shifts.push_back(shift < 0.0 ? Json() : Json(shift));
  }
  return shifts;
}

Json NoiseShare(const Diagnostics& diagnostics) {
  return diagnostics.noise_share < 0.0 ? Json() : Json(diagnostics.noise_share);
}

Json Mask(const RunRecord& record) {
  if (record.options.mask.empty()) return {};
  return {{"file", record.options.mask},
          {"sha256", record.mask_sha256},
          {"kept_share", record.kept_share}};
}

Json Orientation(const OrientationFound& o) {
  if (o.curl_as_is < 0.0) return {};
  return {{"curl_as_is", o.curl_as_is},     {"curl_mirrored", o.curl_mirrored},
          {"is_clear", o.is_clear},         {"is_mirrored", o.is_mirrored},
          {"is_turned", o.is_turned},       {"is_inverted", o.is_inverted},
          {"is_sign_open", o.is_sign_open}, {"has_mirrored_curvature", o.has_mirrored_curvature},
          {"turn_degrees", o.turn}};
}

template <typename T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json();
}

// What the levels of height.png mean, and those of its view.
Json Height(const RunRecord& record) {
  if (!record.recipe.parameters.outputs.Contains(Output::kHeight)) return {};
  Json json = {{"levels",
                "0 is the lowest and 65535 the highest place of this image, border included; the "
                "range before is not known"},
               {"comparable", "differences within this image"},
               {"not_comparable", "levels or differences of two images, units of length"}};
  if (const auto& view = record.height_view) {
    json["view"] = {{"file", kHeightViewName},
                    {"removed", kSurfaceNames[static_cast<size_t>(view->removed)]},
                    {"border", view->border},
                    {"black", view->black},
                    {"white", view->white}};
  }
  return json;
}

// What the exported files mean.
Json Exports(const RunRecord& record) {
  const auto is_made = [&](const char* name) {
    return std::find(record.further.begin(), record.further.end(), name) != record.further.end();
  };
  const char* const height = "slope times pixels above the lowest place of the image";
  Json json = Json::object();
  if (is_made(kHeightMapName)) json[kHeightMapName] = {{"unit", height}};
  if (is_made(kSurfaceName)) {
    json[kSurfaceName] = {
        {"unit", std::string("x to the right and y up: pixels; z to the camera: ") + height},
        {"decimate", record.exports.decimate},
        {"colours", kSurfaceColourNames[static_cast<size_t>(record.exports.colours)]}};
  }
  if (is_made(kNormalMapName)) {
    json[kNormalMapName] = {
        {"convention", kNormalConventionNames[static_cast<size_t>(record.exports.normals)]}};
  }
  return json;
}

Json Options(const RunOptions& options) {
  return {{"split_channels", options.reading.split_channels},
          {"bayer", options.reading.bayer},
          {"choose", options.choose},
          {"mask", options.mask},
          {"height_view", options.height_view}};
}

std::string Now() {
  const std::time_t now = std::time(nullptr);
  std::tm utc = {};
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

std::string HostName() {
  char name[256] = {};
  gethostname(name, sizeof name - 1);
  return name;
}

}  // namespace

std::string FileName(Output output) { return std::string(Name(output)) + ".png"; }

std::string ToJson(const RunOptions& options) {
  return Options(options).dump(-1, ' ', false, Json::error_handler_t::replace);
}

RunOptions OptionsFromJson(const std::string& text) {
  const Json json = Json::parse(text);
  const auto found = json.find("options");
  RunOptions options;
  if (!json.contains("recipe") || found == json.end()) return options;
  try {
    found->at("split_channels").get_to(options.reading.split_channels);
    found->at("bayer").get_to(options.reading.bayer);
    found->at("choose").get_to(options.choose);
    found->at("mask").get_to(options.mask);
    found->at("height_view").get_to(options.height_view);
  } catch (const Json::exception& e) {
    throw Error(std::string("options: ") + e.what());
  }
  const auto is_one_of = [](const std::string& text, const auto& names) {
    return text.empty() || std::find(names.begin(), names.end(), text) != names.end();
  };
  const bool can_choose = options.choose == 0 || (options.choose >= VELOSTRIX_FEWEST_IMAGES &&
                                                  options.choose <= VELOSTRIX_MOST_IMAGES);
  if (!can_choose || !is_one_of(options.reading.bayer, kBayerPatterns) ||
      !is_one_of(options.height_view, kSurfaceNames)) {
    throw Error("options: " + found->dump() + "; expected those that a run.json has");
  }
  return options;
}

std::string RecipeText(const RunRecord& record) {
  std::string recipe = WriteRecipe(record.recipe);
  if (Options(record.options) == Options({})) return recipe;
  const Json json = {{"recipe", Json::parse(recipe)}, {"options", Options(record.options)}};
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

std::string ToJson(const RunRecord& record) {
  const Parameters& p = record.recipe.parameters;
  const cv::Size size = record.inputs.front().pixels.size();
  Json outputs = Json::array();
  Json chosen = Json::array();
  for (const Output output : kAllOutputs) {
    if (p.outputs.Contains(output)) outputs.push_back(FileName(output));
    if (record.chosen.Contains(output)) chosen.push_back(Name(output));
  }
  for (const std::string& name : record.further) outputs.push_back(name);
  if (record.height_view) outputs.push_back(kHeightViewName);
  Json json = {{"version", VELOSTRIX_VERSION},
               {"command", record.arguments},
               {"date", Now()},
               {"host", HostName()},
               {"threads", record.threads},
               {"inputs", Inputs(record)},
               {"singular_values", SingularValues(record.diagnostics)},
               {"unexplained_share", UnexplainedShare(record.diagnostics)},
               {"shifts_pixels", Shifts(record.diagnostics)},
               {"noise_share", NoiseShare(record.diagnostics)},
               {"orientation", Orientation(record.orientation)},
               {"mask", Mask(record)},
               {"warnings", record.diagnostics.warnings},
               {"recipe", Json::parse(WriteRecipe(record.recipe))},
               {"options", Options(record.options)},
               {"chosen_gains", chosen},
               {"height", Height(record)},
               {"sizes",
                {{"input", ToJson(size)},
                 {"working", ToJson(WorkingSize(size, p))},
                 {"output", ToJson(p.region ? p.region->size() : size)}}},
               {"times_ms",
                {{"load_files", record.load_ms},
                 {"diagnose", record.diagnose_ms},
                 {"choose_gains", record.choose_gains_ms},
                 {"set_parameters", record.calls.parameters},
                 {"allocate_buffers", record.calls.buffers},
                 {"set_images", record.calls.images},
                 {"run", record.calls.run},
                 {"encode_files", record.encode_ms},
                 {"write_files", record.write_ms}}},
               {"outputs", outputs}};
  if (const Json exports = Exports(record); !exports.empty()) json["exports"] = exports;
  if (!record.batch.empty()) json["batch"] = Json::parse(record.batch);
  if (const auto& measures = record.measures) {
    json["measures"] = {{"curvature_share", OrNull(measures->curvature_share)},
                        {"height_range", OrNull(measures->height_range)}};
  }
  // File names need not be UTF-8.
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace velostrix::cli
