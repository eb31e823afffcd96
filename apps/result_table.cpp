// The table of a batch (CSV): a line for each part, in the order of the manifest.
#include "apps/result_table.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "apps/commands.h"
#include "apps/csv.h"
#include "apps/input_images.h"

namespace velostrix::cli {
namespace {

using nlohmann::json;

// The largest of a number that each input has.
json Most(const json& record, const char* name) {
  json most;
  for (const json& input : record.at("inputs")) {
    if (most.is_null() || input.at(name) > most) most = input.at(name);
  }
  return most;
}

json Joined(const json& texts) {
  std::string joined;
  for (const json& text : texts) joined += (joined.empty() ? "" : "; ") + text.get<std::string>();
  return joined;
}

json At(const json& record, const char* place) {
  const json::json_pointer pointer(place);
  return record.contains(pointer) ? record.at(pointer) : json();
}

// A column after part, status and error, and its value.
struct Column {
  const char* name;
  json (*value)(const json& record);
};

constexpr std::array kColumns = {
    Column{"warnings", [](const json& r) { return Joined(r.at("warnings")); }},
    Column{"images", [](const json& r) { return json(r.at("inputs").size()); }},
    Column{"width", [](const json& r) { return At(r, "/sizes/output/width"); }},
    Column{"height", [](const json& r) { return At(r, "/sizes/output/height"); }},
    Column{"saturated_share", [](const json& r) { return Most(r, "saturated_share"); }},
    Column{"black_share", [](const json& r) { return Most(r, "black_share"); }},
    Column{"smallest_singular_value", [](const json& r) { return r.at("singular_values").back(); }},
    Column{"unexplained_by_ring",
           [](const json& r) { return At(r, "/unexplained_share/by_ring"); }},
    Column{"curvature_share", [](const json& r) { return At(r, "/measures/curvature_share"); }},
    Column{"height_range", [](const json& r) { return At(r, "/measures/height_range"); }},
    Column{"date", [](const json& r) { return At(r, "/date"); }},
    Column{"load_ms", [](const json& r) { return At(r, "/times_ms/load_files"); }},
    Column{"run_ms", [](const json& r) { return At(r, "/times_ms/run"); }},
    Column{"encode_ms", [](const json& r) { return At(r, "/times_ms/encode_files"); }}};

std::string UnfinishedRow(const std::string& part, const char* status, const std::string& error) {
  std::vector<std::string> cells = {part, status, error};
  cells.resize(cells.size() + kColumns.size());
  return CsvLine(cells);
}

}  // namespace

std::string TableHeader() {
  std::vector<std::string> cells = {"part", "status", "error"};
  for (const Column& column : kColumns) cells.emplace_back(column.name);
  return CsvLine(cells);
}

std::vector<std::vector<std::string>> ReadTable(const std::string& file) {
  const std::vector<char> bytes = ReadBytes(file, "; expected a table of velostrix batch");
  std::vector<std::vector<std::string>> rows;
  try {
    for (CsvRow& row : ParseCsv({bytes.begin(), bytes.end()})) rows.push_back(std::move(row.cells));
  } catch (const Failure& e) {
    throw Failure(file + ": " + e.what());
  }
  const std::vector<std::string> header = ParseCsv(TableHeader()).front().cells;
  const bool is_table = !rows.empty() && rows.front() == header &&
                        std::all_of(rows.begin(), rows.end(),
                                    [&](const auto& r) { return r.size() == header.size(); });
  if (!is_table) throw Failure(file + ": not a table of this version; move it away");
  rows.erase(rows.begin());
  return rows;
}

std::string DoneRow(const std::string& part, const json& record) {
  std::vector<std::string> cells = {part, "done", ""};
  for (const Column& column : kColumns) {
    const json value = column.value(record);
    const std::string text = value.is_string() ? value.get<std::string>() : value.dump();
    cells.push_back(value.is_null() ? "" : text);
  }
  return CsvLine(cells);
}

std::string FailedRow(const std::string& part, const std::string& error) {
  return UnfinishedRow(part, "failed", error);
}

std::string OpenRow(const std::string& part) { return UnfinishedRow(part, "open", ""); }

}  // namespace velostrix::cli
