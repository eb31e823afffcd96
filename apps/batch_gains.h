// The gains of a batch, which are the same for all of its parts.
#pragma once

#include <string>
#include <vector>

#include "apps/batch_workers.h"
#include "apps/console.h"
#include "apps/manifest.h"
#include "velostrix/recipe.hpp"

namespace velostrix::cli {

// The parts that gains are chosen by: "sample", up to nine that are spread over the manifest, or
// names joined by commas. UsageError for a name that is not there.
std::vector<ManifestPart> GainParts(const std::string& choice,
                                    const std::vector<ManifestPart>& parts);

// The plan's recipe with what is open chosen by these parts: of each output the least gain, so that
// it keeps all of them within the grey levels, and the most bits.
Recipe ChooseGainsBy(const std::vector<ManifestPart>& sample, const BatchPlan& plan,
                     Console& console);

// UsageError when the recipe leaves a gain open.
void RequireGains(const Recipe& recipe);

}  // namespace velostrix::cli
