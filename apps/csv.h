// Comma-separated values: rows of cells as text (RFC 4180).
#pragma once

#include <string>
#include <vector>

namespace velostrix::cli {

struct CsvRow {
  size_t line = 0;  // of the text, counted from 1, where it begins
  std::vector<std::string> cells;
};

// The rows of the text that are not empty. Accepts all usual line ends and skips a byte-order mark.
// Cells are separated by semicolons when the first line has semicolons and no comma: spreadsheets
// write them where the comma is decimal. Throws Failure for a quote that is not closed.
std::vector<CsvRow> ParseCsv(const std::string& text);

// One row with its line end; cells are quoted where necessary.
std::string CsvLine(const std::vector<std::string>& cells);

}  // namespace velostrix::cli
