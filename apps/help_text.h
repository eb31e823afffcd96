// Help that fits the width of a terminal.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace velostrix::cli {

// The parser's help, with long lines broken at blanks and continued below their texts.
class HelpText : public CLI::Formatter {
 public:
  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override;
};

}  // namespace velostrix::cli
