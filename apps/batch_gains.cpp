// The gains of a batch, the same for all of its parts.
#include "apps/batch_gains.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "apps/commands.h"
#include "apps/part.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {
namespace {

// A gain for a brightness of one sign fills the levels from 0; one for both signs suits either.
void KeepSmaller(OutputScaling& kept, const OutputScaling& other) {
  const auto rank = [](const OutputScaling& scaling) {
    return std::pair(-scaling.offset, std::abs(scaling.gain));
  };
  if (rank(other) < rank(kept)) kept = other;
}

}  // namespace

std::vector<ManifestPart> GainParts(const std::string& choice,
                                    const std::vector<ManifestPart>& parts) {
  constexpr size_t kMost = 9;
  std::vector<ManifestPart> chosen;
  if (choice == "sample") {
    const size_t count = std::min(kMost, parts.size());
    for (size_t k = 0; k < count; ++k) chosen.push_back(parts[k * parts.size() / count]);
    return chosen;
  }
  for (const std::string& name : CLI::detail::split(choice, ',')) {
    const auto is_it = [&](const ManifestPart& part) { return part.name == name; };
    const auto found = std::find_if(parts.begin(), parts.end(), is_it);
    if (found == parts.end()) {
      throw UsageError(std::string("--choose-gains ")
                           .append(choice)
                           .append(": no part ")
                           .append(name)
                           .append("; expected names of parts joined by commas, or sample"));
    }
    chosen.push_back(*found);
  }
  return chosen;
}

Recipe ChooseGainsBy(const std::vector<ManifestPart>& sample, const BatchPlan& plan,
                     Console& console) {
  Tool tool;
  Part chosen;
  for (const ManifestPart& entry : sample) {
    console.Step("choosing gains by part " + entry.name);
    Part part = BeginPart(entry, plan);
    ChooseFiles(part, plan);
    LoadImages(part);
    LoadMask(part);
    tool.SetMask(part.mask);
    ChooseGains(tool, part);
    if (&entry == &sample.front()) chosen.record.recipe = part.record.recipe;
    Recipe& recipe = chosen.record.recipe;
    recipe.bits = std::max(recipe.bits, part.record.recipe.bits);
    for (const Output output : kAllOutputs) {
      OutputScaling* const kept = Scaling(recipe.parameters, output);
      const bool is_open = kept != nullptr && !plan.part.record.recipe.kept_gains.Contains(output);
      if (is_open) KeepSmaller(*kept, *Scaling(part.record.recipe.parameters, output));
    }
  }
  chosen.record.recipe.flat = plan.part.record.recipe.flat;  // of all lamps
  SayGains(chosen, console);
  return chosen.record.recipe;
}

void RequireGains(const Recipe& recipe) {
  std::string open;
  for (const Output output : kAllOutputs) {
    const bool is_open = WithChannels(recipe.parameters.outputs).Contains(output) &&
                         Scaling(recipe.parameters, output) != nullptr &&
                         !recipe.kept_gains.Contains(output);
    if (is_open) open += std::string(open.empty() ? "" : ", ") + Name(output);
  }
  if (open.empty()) return;
  throw UsageError("--recipe: no gain for " + open +
                   ", and parts compare only under equal gains; give the run.json of a part, or "
                   "--choose-gains sample");
}

}  // namespace velostrix::cli
