// Comma-separated values: rows of cells as text (RFC 4180).
#pragma once

#include <string>
#include <vector>

namespace velostrix::cli {

struct CsvRow {
  size_t line = 0;  // of the text, counted from 1, where it begins
  std::vector<std::string> cells;
};

// Rows of the text but empty ones. Lines end in any usual way; a byte-order mark is skipped; cells
// are separated by semicolons where the first line has some and no comma, as spreadsheets write
// them where the comma is decimal. Failure for a quote that is not closed.
std::vector<CsvRow> ParseCsv(const std::string& text);

// One row with its line end; quoted where needed.
std::string CsvLine(const std::vector<std::string>& cells);

}  // namespace velostrix::cli
