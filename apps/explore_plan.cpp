// The tiles of `velostrix explore`: values of one or two parameters as options of reconstruct.
#include "apps/explore_plan.h"

#include <algorithm>
#include <cmath>

#include "apps/commands.h"

namespace velostrix::cli {
namespace {

constexpr size_t kMostTiles = 64;

// The names of parameters and their options; an option's own name is accepted as well.
constexpr std::array<std::pair<const char*, const char*>, 9> kParameters = {
    {{"gain", "gain"},
     {"blur", "blur-radius"},
     {"iterations", "iteration-cap"},
     {"band", "band"},
     {"scale", "scale"},
     {"run", "run"},
     {"difference", "difference"},
     {"orientation", "orientation"},
     {"equalise", "equalise"}}};

Axis ParseAxis(const std::string& text) {
  const size_t equals = text.find('=');
  const std::string given = text.substr(0, equals);
  Axis axis;
  for (const auto& [name, option] : kParameters) {
    if (given == name || given == option) axis.option = option;
  }
  if (equals != std::string::npos) axis.values = CLI::detail::split(text.substr(equals + 1), ',');
  const bool has_gap = std::find(axis.values.begin(), axis.values.end(), "") != axis.values.end();
  if (axis.option.empty() || axis.values.empty() || has_gap) {
    throw UsageError("--vary " + text + ": expected NAME=VALUE,VALUE,... with NAME one of " +
                     ParameterNames());
  }
  return axis;
}

// The default result: the height when its iterations are varied.
std::string UsualResult(const std::vector<Axis>& axes) {
  const bool is_height = std::any_of(
      axes.begin(), axes.end(), [](const Axis& axis) { return axis.option == "iteration-cap"; });
  return is_height ? kHeightView : Name(Output::kCurvature);
}

Output OutputOf(const std::string& show) {
  const auto found = std::find_if(kAllOutputs.begin(), kAllOutputs.end(),
                                  [&](Output output) { return show == Name(output); });
  return found == kAllOutputs.end() ? Output::kHeight : *found;
}

// The axes by default.
std::vector<Axis> UsualAxes(Output shown) {
  const Axis gain = {"gain", {"x0.5", "x1", "x2"}};
  const Axis scale = {"scale", {"1", "0.5", "0.25"}};
  if (shown == Output::kHeight) return {{"iteration-cap", {"50", "200", "1000"}}, scale};
  if (shown == Output::kNormal) return {{"run", {"uncali", "partrows", "partcols"}}, scale};
  if (shown == Output::kCurvature || shown == Output::kMagnitude) {
    return {{"blur-radius", {"0", "1", "2", "4"}}, gain};
  }
  return {scale, gain};
}

void CheckAxes(const std::array<Axis, 2>& axes, const ExplorePlan& plan) {
  const size_t rows = axes[0].values.size();
  const size_t columns = axes[1].values.size();
  if (axes[0].option == axes[1].option) {
    throw UsageError("--vary " + axes[0].option + ": given twice");
  }
  if (rows * columns > kMostTiles) {
    throw UsageError("--vary: " + std::to_string(rows) + " x " + std::to_string(columns) +
                     " tiles; expected at most " + std::to_string(kMostTiles));
  }
  for (const Axis& axis : axes) {
    if (axis.option != "gain" || Gain(Parameters(), plan.shown) != nullptr) continue;
    throw UsageError("--vary gain: " + plan.show + " has none; see --show");
  }
}

void SetGain(ExploredTile& tile, const std::string& value, Output shown) {
  if (value.front() != 'x') {
    tile.settings.emplace_back("gain", std::string(Name(shown)) + '=' + value);
    return;
  }
  const bool is_factor = ParseNumber(value.substr(1), tile.gain_factor) &&
                         std::isfinite(tile.gain_factor) && tile.gain_factor > 0.0;
  if (is_factor) return;
  throw UsageError("--vary gain: " + value +
                   "; expected a gain, or xF, a factor above 0 of the chosen one");
}

}  // namespace

std::string ParameterNames() {
  std::string names;
  for (const auto& parameter : kParameters) {
    names += std::string(names.empty() ? "" : ", ") + parameter.first;
  }
  return names;
}

ExplorePlan PlanTiles(const std::vector<std::string>& vary, const std::string& show,
                      const ReconstructOptions& options) {
  std::vector<Axis> axes;
  axes.reserve(vary.size());
  for (const std::string& text : vary) axes.push_back(ParseAxis(text));
  if (axes.size() > 2) {
    throw UsageError("--vary: given " + std::to_string(axes.size()) +
                     " times; expected two parameters at most");
  }
  ExplorePlan plan;
  plan.show = show.empty() ? UsualResult(axes) : show;
  plan.shown = OutputOf(plan.show);
  if (axes.empty()) axes = UsualAxes(plan.shown);
  if (axes.size() == 1) axes.insert(axes.begin(), Axis{"", {""}});
  plan.axes = {axes[0], axes[1]};
  CheckAxes(plan.axes, plan);

  for (const std::string& row : axes[0].values) {
    for (const std::string& column : axes[1].values) {
      ExploredTile& tile = plan.tiles.emplace_back();
      for (const auto& [option, value] :
           Settings{{axes[0].option, row}, {axes[1].option, column}}) {
        if (option == "gain") {
          SetGain(tile, value, plan.shown);
        } else if (!option.empty()) {
          tile.settings.emplace_back(option, value);
        }
      }
      ParseSettings(options, tile.settings, plan.shown);  // refuses what is out of range
    }
  }
  return plan;
}

std::string Label(const Settings& settings) {
  std::string label;
  for (const auto& [option, value] : settings) {
    const bool is_flag = option == "equalise";
    label += (label.empty() ? "--" : " --") + option;
    if (!value.empty()) label += (is_flag ? "=" : " ") + value;
  }
  return label;
}

// By the declarations of reconstruct itself.
Recipe ParseSettings(const ReconstructOptions& options, const Settings& settings, Output shown) {
  ReconstructOptions changed = options;
  CLI::App parser;
  DeclareMethod(parser, changed);
  DeclareGains(parser, changed);
  std::vector<std::string> arguments;  // from the last to the first, as the parser takes them
  for (const auto& [option, value] : settings) {
    arguments.push_back(std::string("--").append(option).append("=").append(value));
  }
  for (const std::string& gain : options.gains) arguments.push_back("--gain=" + gain);
  for (const std::string& offset : options.offsets) arguments.push_back("--offset=" + offset);
  parser.parse(std::move(arguments));
  Recipe recipe = ParseRecipe(changed);
  recipe.parameters.outputs = {shown};
  return recipe;
}

}  // namespace velostrix::cli
