// Comma-separated values: rows of cells as text (RFC 4180).
#include "apps/csv.h"

#include "apps/commands.h"

namespace velostrix::cli {

std::vector<CsvRow> ParseCsv(const std::string& text) {
  const std::string mark = "\xEF\xBB\xBF";
  const size_t begin = text.rfind(mark, 0) == 0 ? mark.size() : 0;
  const std::string first_line = text.substr(begin, text.find_first_of("\r\n", begin) - begin);
  const bool has_semicolons =
      first_line.find(';') != std::string::npos && first_line.find(',') == std::string::npos;
  const char separator = has_semicolons ? ';' : ',';

  std::vector<CsvRow> rows;
  size_t line = 1;
  CsvRow row = {line, {""}};
  const auto end_row = [&] {
    if (row.cells.size() > 1 || !row.cells.front().empty()) rows.push_back(row);
    row = {++line, {""}};
  };
  bool is_quoted = false;
  for (size_t k = begin; k < text.size(); ++k) {
    const char character = text[k];
    const bool is_pair = text.compare(k, 2, "\"\"") == 0 || text.compare(k, 2, "\r\n") == 0;
    std::string& cell = row.cells.back();
    if (is_quoted) {
      if (character == '\n') ++line;
      if (character != '"') {
        cell += character;
      } else if (is_pair) {
        cell += text[k++];
      } else {
        is_quoted = false;
      }
    } else if (character == '"' && cell.empty()) {
      is_quoted = true;
    } else if (character == separator) {
      row.cells.emplace_back();
    } else if (character == '\n' || character == '\r') {
      if (character == '\r' && is_pair) ++k;
      end_row();
    } else {
      cell += character;
    }
  }
  if (is_quoted) throw Failure("line " + std::to_string(row.line) + ": a quote is not closed");
  end_row();
  return rows;
}

std::string CsvLine(const std::vector<std::string>& cells) {
  std::string line;
  for (const std::string& cell : cells) {
    if (&cell != &cells.front()) line += ',';
    if (cell.find_first_of(",;\"\r\n") == std::string::npos) {
      line += cell;
      continue;
    }
    line += '"';
    for (const char character : cell) line += character == '"' ? "\"\"" : std::string(1, character);
    line += '"';
  }
  return line + '\n';
}

}  // namespace velostrix::cli
