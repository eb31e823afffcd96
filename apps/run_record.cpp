// What one `velostrix reconstruct` did, as it is kept in run.json.
#include "apps/run_record.h"

#include <nlohmann/json.hpp>

#include "velostrix/version.h"

namespace velostrix::cli {
namespace {

using Json = nlohmann::ordered_json;

Json ToJson(cv::Size size) { return {{"width", size.width}, {"height", size.height}}; }

Json Inputs(const RunRecord& record) {
  Json inputs = Json::array();
  for (size_t k = 0; k < record.inputs.size(); ++k) {
    const Exposure& exposure = record.diagnostics.exposures[k];
    inputs.push_back({{"file", record.inputs[k].file},
                      {"conversion", record.inputs[k].note},
                      {"saturated_share", exposure.saturated_share},
                      {"black_share", exposure.black_share},
                      {"mean_level", exposure.mean_level}});
  }
  return inputs;
}

Json UnexplainedShare(const RunRecord& record) {
  const auto& share = record.diagnostics.unexplained;
  return share ? Json({{"by_ring", share->by_ring}, {"by_any_lamps", share->by_any}}) : Json();
}

Json Scalings(const RunRecord& record, const Request& request) {
  Json scalings = {{"factor", {{"gain", record.parameters.factor_gain}}}};
  for (const Output output : kAllOutputs) {
    const OutputScaling* const scaling = Scaling(record.parameters, output);
    if (scaling == nullptr) continue;
    scalings[Name(output)] = {{"gain", scaling->gain},
                              {"offset", scaling->offset},
                              {"gain_given", request.given_gains.Contains(output)}};
  }
  return scalings;
}

Json ParametersOf(const RunRecord& record, const ReconstructOptions& options,
                  const Request& request) {
  const Parameters& p = record.parameters;
  Json json = {{"run", options.run}};
  if (p.run == Run::kPartRows || p.run == Run::kPartCols) json["band"] = p.band;
  if (p.region)
    json["roi"] = {p.region->x, p.region->y, p.region->br().x - 1, p.region->br().y - 1};
  if (record.bits != 0) {
    json["bits"] = record.bits;
    json["bits_given"] = options.bits != 0;
  }
  json["scale"] = p.scale;
  json["equalise"] = p.equalise;
  json["difference"] = options.difference;
  json["blur"] = p.blur_radius;
  json["iterations"] = p.iteration_cap;
  json["scaling"] = Scalings(record, request);
  return json;
}

}  // namespace

std::string FileName(Output output) { return std::string(Name(output)) + ".png"; }

std::string ToJson(const RunRecord& record, const ReconstructOptions& options,
                   const Request& request) {
  const Parameters& p = record.parameters;
  const cv::Size size = record.inputs.front().pixels.size();
  Json outputs = Json::array();
  for (const Output output : kAllOutputs) {
    if (p.outputs.Contains(output)) outputs.push_back(FileName(output));
  }
  const Json json = {{"version", VELOSTRIX_VERSION},
                     {"inputs", Inputs(record)},
                     {"singular_values", record.diagnostics.singular_values},
                     {"unexplained_share", UnexplainedShare(record)},
                     {"warnings", record.diagnostics.warnings},
                     {"parameters", ParametersOf(record, options, request)},
                     {"sizes",
                      {{"input", ToJson(size)},
                       {"working", ToJson(WorkingSize(size, p))},
                       {"output", ToJson(p.region ? p.region->size() : size)}}},
                     {"times_ms",
                      {{"load_files", record.load_ms},
                       {"choose_gains", record.choose_gains_ms},
                       {"set_parameters", record.calls.parameters},
                       {"allocate_buffers", record.calls.buffers},
                       {"set_images", record.calls.images},
                       {"run", record.calls.run}}},
                     {"outputs", outputs}};
  // File names need not be UTF-8.
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace velostrix::cli
