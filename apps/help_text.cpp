// Help that fits the width of a terminal.
#include "apps/help_text.h"

#include <sstream>

namespace velostrix::cli {

std::string HelpText::make_help(const CLI::App* app, std::string name,
                                CLI::AppFormatMode mode) const {
  constexpr size_t kWidth = 80;
  std::istringstream help(CLI::Formatter::make_help(app, std::move(name), mode));
  std::string wrapped;
  bool was_empty = false;
  for (std::string line; std::getline(help, line);) {
    if (line.empty() && was_empty) continue;
    was_empty = line.empty();
    const size_t indent = line.rfind("  ", 0) == 0 ? get_column_width() : 0;
    while (line.size() > kWidth) {
      size_t cut = line.rfind(' ', kWidth);
      if (cut == std::string::npos || cut <= indent) cut = line.find(' ', kWidth);
      if (cut == std::string::npos) break;
      wrapped += line.substr(0, cut) + '\n';
      line = std::string(indent, ' ') + line.substr(cut + 1);
    }
    wrapped += line + '\n';
  }
  return wrapped;
}

}  // namespace velostrix::cli
