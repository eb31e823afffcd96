// The gains of a batch, the same for all of its parts.
#pragma once

#include <string>
#include <vector>

#include "apps/batch_workers.h"
#include "apps/console.h"
#include "apps/manifest.h"
#include "velostrix/recipe.hpp"

namespace velostrix::cli {

// The parts from which gains are chosen: for "sample" up to nine, spread over the manifest; else
// those named, joined by commas. Throws UsageError for an unknown name.
std::vector<ManifestPart> GainParts(const std::string& choice,
                                    const std::vector<ManifestPart>& parts);

// The plan's recipe, with its open gains and bits chosen from these parts: for each output the
// smallest gain, which keeps all parts within the grey levels, and the largest number of bits.
Recipe ChooseGainsBy(const std::vector<ManifestPart>& sample, const BatchPlan& plan,
                     Console& console);

// Throws UsageError when a gain of the recipe is open.
void RequireGains(const Recipe& recipe);

}  // namespace velostrix::cli
