// Recipes: parameters as JSON text.
#include "recipe.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <vector>

namespace velostrix {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kVersion = 1;

[[noreturn]] void Refuse(const std::string& field, const Json& value, const std::string& expected) {
  std::string found = value.dump(-1, ' ', false, Json::error_handler_t::replace);
  constexpr size_t kMostShown = 60;
  if (found.size() > kMostShown) found = found.substr(0, kMostShown) + "...";
  throw Error("recipe: " + field + " is " + found + "; expected " + expected);
}

int Integer(const std::string& field, const Json& value) {
  constexpr auto kMost = std::numeric_limits<int32_t>::max();
  const bool fits = value.is_number_unsigned()
                        ? value.get<uint64_t>() <= uint64_t{kMost}
                        : value.is_number_integer() && value.get<int64_t>() >= -int64_t{kMost};
  if (!fits) Refuse(field, value, "an integer");
  return value.get<int>();
}

double Number(const std::string& field, const Json& value) {
  if (!value.is_number()) Refuse(field, value, "a number");
  return value.get<double>();
}

bool Switch(const std::string& field, const Json& value) {
  if (!value.is_boolean()) Refuse(field, value, "true or false");
  return value.get<bool>();
}

std::string Joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text.append(text.empty() ? "" : ", ").append(name);
  return text;
}

// The index of the value among the names.
size_t Choice(const std::string& field, const Json& value, const std::vector<std::string>& names) {
  const auto place = value.is_string() ? std::find(names.begin(), names.end(), value) : names.end();
  if (place == names.end()) Refuse(field, value, "one of " + Joined(names));
  return static_cast<size_t>(place - names.begin());
}

using Readers = std::map<std::string, std::function<void(const std::string&, const Json&)>>;

// Passes every member of an object to its reader. `path` is empty for the recipe itself.
void ReadMembers(const std::string& path, const Json& object, const Readers& readers) {
  if (!object.is_object()) Refuse(path, object, "an object");
  for (const auto& [name, value] : object.items()) {
    std::string field = path;
    field.append(path.empty() ? "" : ".").append(name);
    const auto reader = readers.find(name);
    if (reader == readers.end()) {
      std::vector<std::string> names;
      names.reserve(readers.size());
      for (const auto& known : readers) names.push_back(known.first);
      throw Error("recipe: " + field + " is no field of it; expected some of " + Joined(names));
    }
    reader->second(field, value);
  }
}

std::vector<std::string> OutputNames() {
  std::vector<std::string> names(kAllOutputs.size());
  std::transform(kAllOutputs.begin(), kAllOutputs.end(), names.begin(), Name);
  return names;
}

OutputSet Outputs(const std::string& field, const Json& value) {
  if (!value.is_array()) Refuse(field, value, "an array of names");
  OutputSet outputs;
  for (const Json& name : value) outputs.Add(kAllOutputs[Choice(field, name, OutputNames())]);
  return outputs;
}

std::optional<cv::Rect> Region(const std::string& path, const Json& value) {
  if (value.is_null()) return std::nullopt;
  cv::Rect region;
  const auto into = [&](int& number) {
    return [&](const std::string& field, const Json& member) { number = Integer(field, member); };
  };
  ReadMembers(path, value,
              {{"x", into(region.x)},
               {"y", into(region.y)},
               {"width", into(region.width)},
               {"height", into(region.height)}});
  if (value.size() != 4) Refuse(path, value, "x, y, width and height");
  return region;
}

std::optional<LampHint> Lamp(const std::string& path, const Json& value) {
  if (value.is_null()) return std::nullopt;
  LampHint lamp;
  ReadMembers(path, value,
              {{"image", [&](const std::string& field,
                             const Json& member) { lamp.image = Integer(field, member); }},
               {"degrees", [&](const std::string& field, const Json& member) {
                  lamp.degrees = Number(field, member);
                }}});
  if (value.size() != 2) Refuse(path, value, "image and degrees");
  return lamp;
}

std::vector<FlatField> Flat(const std::string& path, const Json& value) {
  if (!value.is_array() || value.size() > VELOSTRIX_MOST_IMAGES) {
    Refuse(path, value, "an array of the coefficients of each lamp");
  }
  std::vector<FlatField> fields;
  for (const Json& lamp : value) {
    FlatField& field = fields.emplace_back();
    if (!lamp.is_array() || lamp.size() != field.size()) {
      Refuse(path, lamp, std::to_string(field.size()) + " coefficients");
    }
    for (size_t k = 0; k < field.size(); ++k) field[k] = Number(path, lamp[k]);
  }
  return fields;
}

Readers GainReaders(Recipe& recipe) {
  Readers readers;
  for (const Output output : kAllOutputs) {
    double* const gain = Gain(recipe.parameters, output);
    if (gain == nullptr) continue;
    readers[Name(output)] = [&recipe, gain, output](const std::string& field, const Json& value) {
      *gain = Number(field, value);
      recipe.kept_gains.Add(output);
    };
  }
  return readers;
}

Readers OffsetReaders(Recipe& recipe) {
  Readers readers;
  for (const Output output : kAllOutputs) {
    OutputScaling* const scaling = Scaling(recipe.parameters, output);
    if (scaling == nullptr) continue;
    readers[Name(output)] = [&recipe, scaling, output](const std::string& field,
                                                       const Json& value) {
      scaling->offset = Integer(field, value);
      recipe.kept_offsets.Add(output);
    };
  }
  return readers;
}

// Refuses repeated names: the parser would take the last one.
Json Parse(std::string_view text) {
  std::vector<std::set<std::string>> names;
  const auto watch = [&](int, Json::parse_event_t event, const Json& parsed) {
    if (event == Json::parse_event_t::object_start) names.emplace_back();
    if (event == Json::parse_event_t::object_end) names.pop_back();
    if (event == Json::parse_event_t::key && !names.back().insert(parsed).second) {
      throw Error("recipe: " + parsed.get<std::string>() + " is there twice");
    }
    return true;
  };
  try {
    return Json::parse(text, watch);
  } catch (const Json::exception& e) {
    throw Error(std::string("recipe: is no JSON: ") + e.what());
  }
}

}  // namespace

Recipe FromJson(std::string_view text) {
  Json json = Parse(text);
  if (!json.is_object()) Refuse("the text", json, "an object");
  if (const auto member = json.find("recipe"); member != json.end()) {
    Json inner = std::move(*member);  // of a record of a run
    json = std::move(inner);
  }
  Recipe recipe;
  Parameters& p = recipe.parameters;
  const auto into = [](auto& to, auto read) {
    return [&to, read](const std::string& field, const Json& value) { to = read(field, value); };
  };
  const auto into_choice = [](auto& to, const auto& names) {
    return [&to, names = std::vector<std::string>(names.begin(), names.end())](
               const std::string& field, const Json& value) {
      to = static_cast<std::decay_t<decltype(to)>>(Choice(field, value, names));
    };
  };
  const auto members = [](Readers readers) {
    return [readers = std::move(readers)](const std::string& field, const Json& value) {
      ReadMembers(field, value, readers);
    };
  };
  int version = 0;
  ReadMembers("", json,
              {{"recipe_version", into(version, Integer)},
               {"run", into_choice(p.run, kRunNames)},
               {"band", into(p.band, Integer)},
               {"outputs", into(p.outputs, Outputs)},
               {"region", into(p.region, Region)},
               {"scale", into(p.scale, Number)},
               {"equalise", into(p.equalise, Switch)},
               {"difference", into_choice(p.difference, kDifferenceNames)},
               {"blur_radius", into(p.blur_radius, Integer)},
               {"iteration_cap", into(p.iteration_cap, Integer)},
               {"bits", into(recipe.bits, Integer)},
               {"orientation", into_choice(p.orientation, kOrientationNames)},
               {"lamp", into(p.lamp, Lamp)},
               {"white", into(recipe.white, Integer)},
               {"flat", into(recipe.flat, Flat)},
               {"gains", members(GainReaders(recipe))},
               {"offsets", members(OffsetReaders(recipe))}});
  if (version != kVersion) {
    throw Error("recipe: recipe_version is " +
                (version == 0 ? "missing" : std::to_string(version)) + "; expected " +
                std::to_string(kVersion));
  }
  try {
    return FromRecord(ToRecord(recipe));
  } catch (const Error& e) {
    throw Error(std::string("recipe: ") + e.what());
  }
}

std::string ToJson(const Recipe& recipe) {
  const Parameters& p = recipe.parameters;
  const Parameters plain;
  Json outputs = Json::array();
  Json gains = Json::object();
  Json offsets = Json::object();
  for (const Output output : kAllOutputs) {
    if (p.outputs.Contains(output)) outputs.push_back(Name(output));
    const double* const gain = Gain(p, output);
    if (gain != nullptr && (recipe.kept_gains.Contains(output) || *gain != *Gain(plain, output))) {
      gains[Name(output)] = *gain;
    }
    const OutputScaling* const scaling = Scaling(p, output);
    if (scaling != nullptr && (recipe.kept_offsets.Contains(output) ||
                               scaling->offset != Scaling(plain, output)->offset)) {
      offsets[Name(output)] = scaling->offset;
    }
  }
  Json region;
  if (p.region) {
    region = {{"x", p.region->x},
              {"y", p.region->y},
              {"width", p.region->width},
              {"height", p.region->height}};
  }
  Json lamp;
  if (p.lamp) lamp = {{"image", p.lamp->image}, {"degrees", p.lamp->degrees}};
  const Json json = {{"recipe_version", kVersion},
                     {"run", kRunNames[static_cast<size_t>(p.run)]},
                     {"band", p.band},
                     {"outputs", outputs},
                     {"region", region},
                     {"scale", p.scale},
                     {"equalise", p.equalise},
                     {"difference", kDifferenceNames[static_cast<size_t>(p.difference)]},
                     {"blur_radius", p.blur_radius},
                     {"iteration_cap", p.iteration_cap},
                     {"bits", recipe.bits},
                     {"orientation", kOrientationNames[static_cast<size_t>(p.orientation)]},
                     {"lamp", lamp},
                     {"white", recipe.white},
                     {"flat", recipe.flat},
                     {"gains", gains},
                     {"offsets", offsets}};
  return json.dump(2) + '\n';
}

}  // namespace velostrix
