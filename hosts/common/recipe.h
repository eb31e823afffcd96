// Recipes: parameters as JSON text.
#pragma once

#include <string>
#include <string_view>

#include "velostrix/recipe.hpp"

namespace velostrix {

// Throws Error, which names the field.
Recipe FromJson(std::string_view text);

std::string ToJson(const Recipe& recipe);

}  // namespace velostrix
