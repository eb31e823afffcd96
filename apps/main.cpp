// The command line `velostrix`: parses arguments, runs a command, turns exceptions into exit codes.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <numeric>
#include <opencv2/core.hpp>
#include <opencv2/core/utils/logger.hpp>
#include <string>
#include <vector>

#include "apps/commands.h"
#include "apps/console.h"
#include "apps/help_text.h"
#include "velostrix/version.h"

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;
constexpr const char* kSeeHelp = "; see velostrix --help";

int Complain(int exit_code, const std::string& message) {
  std::cerr << "velostrix: " << velostrix::cli::Printable(message) << '\n';
  return exit_code;
}

// Insertions, deletions and replacements of letters from one word to the other (Levenshtein 1966).
size_t Distance(const std::string& from, const std::string& to) {
  std::vector<size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < from.size(); ++i) {
    size_t diagonal = row[0]++;
    for (size_t j = 0; j < to.size(); ++j) {
      const size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

// The name that begins with the word or, failing that, is spelled most like it.
std::string Nearest(const std::string& word, const std::vector<std::string>& names) {
  std::string nearest;
  std::pair<size_t, size_t> least;
  for (const std::string& name : names) {
    const std::pair distance(Distance(word, name.substr(0, word.size())), Distance(word, name));
    if (!nearest.empty() && distance >= least) continue;
    nearest = name;
    least = distance;
  }
  return nearest;
}

// What was not understood, and the option that may have been meant.
std::string DescribeExtra(const CLI::App& app) {
  const CLI::App& command = app.get_subcommands().empty() ? app : *app.get_subcommands().front();
  const std::string extra = command.remaining(true).front();
  const std::string word = extra.substr(0, extra.find('='));
  if (word.rfind("--", 0) != 0) return extra + ": is not expected here";
  std::vector<std::string> names;
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return word + ": no such option; the nearest is " + Nearest(word, names);
}

// The parser's own message does not name the unknown command.
void RequireCommand(const CLI::App& app, int argc, char** argv) {
  const std::string first = argc > 1 ? argv[1] : "";
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands({})) names.push_back(command->get_name());
  if (first.empty()) {
    throw velostrix::cli::UsageError("no command; expected one of " +
                                     CLI::detail::join(names, " "));
  }
  if (first.front() == '-' || std::find(names.begin(), names.end(), first) != names.end()) return;
  throw velostrix::cli::UsageError(first + ": no such command; the nearest is " +
                                   Nearest(first, names) + kSeeHelp);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace velostrix::cli;
  signal(SIGXFSZ, SIG_IGN);  // a file that grows beyond the limit is a failed write
  // OpenCV's own threads gain nothing here, and where none can be started they end the program.
  cv::setNumThreads(kNoThreads);
  // We report a file that cannot be read ourselves.
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);

  CLI::App app(
      "Surface relief by photometric stereo: from 3 to 8 images of one part, taken by one camera, "
      "each under a different lamp. Print and stains fade; dents, scratches and embossing stand "
      "out.",
      "velostrix");
  app.set_version_flag("--version", "velostrix " VELOSTRIX_VERSION);
  app.require_subcommand(1);
  app.formatter(std::make_shared<HelpText>());
  app.footer(
      "Examples:\n"
      "  velostrix render --out scene\n"
      "  velostrix reconstruct scene --out relief\n"
      "  velostrix sheet scene relief --out overview.png\n\n"
      "Exit codes: 0 done, 1 failed, 2 wrong arguments.");
  AddReconstructCommand(app, {argv, argv + argc});
  AddExploreCommand(app, {argv, argv + argc});
  AddBatchCommand(app, {argv, argv + argc});
  AddMergeCommand(app);
  AddReportCommand(app);
  AddCompareCommand(app);
  AddRenderCommand(app);
  AddSheetCommand(app);
  AddInfoCommand(app);

  try {
    RequireCommand(app, argc, argv);
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    app.exit(e);  // prints --help, --version
  } catch (const CLI::ExtrasError&) {
    return Complain(kWrongUsage, DescribeExtra(app) + kSeeHelp);
  } catch (const CLI::ParseError& e) {
    return Complain(kWrongUsage, e.what() + std::string(kSeeHelp));
  } catch (const UsageError& e) {
    return Complain(kWrongUsage, e.what());
  } catch (const std::exception& e) {
    return Complain(kFailed, Explain(e));
  }
  if (!std::cout.flush()) return Complain(kFailed, "standard output: cannot be written");
  return 0;
}
