// The command line `velostrix`: parses the arguments, runs a command, turns exceptions into exit
// codes.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <new>
#include <opencv2/core.hpp>
#include <opencv2/core/utils/logger.hpp>

#include "apps/commands.h"
#include "apps/console.h"
#include "velostrix/version.h"

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;
constexpr const char* kOutOfMemory =
    "out of memory; work on fewer pixels (--roi, --scale, --size, --tile)";

int Complain(int exit_code, const std::string& message) {
  std::cerr << "velostrix: " << velostrix::cli::Printable(message) << '\n';
  return exit_code;
}

// The parser's own words do not name the command that it does not know.
void RequireCommand(const CLI::App& app, int argc, char** argv) {
  const std::string first = argc > 1 ? argv[1] : "";
  bool is_known = first.rfind('-', 0) == 0;
  std::string names;
  for (const CLI::App* command : app.get_subcommands({})) {
    is_known = is_known || command->get_name() == first;
    names += ' ' + command->get_name();
  }
  if (is_known) return;
  throw velostrix::cli::UsageError((first.empty() ? "no command" : first + ": no such command") +
                                   "; expected one of" + names);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace velostrix::cli;
  signal(SIGXFSZ, SIG_IGN);  // a file that grows beyond the limit is a failed write
  // OpenCV's own threads gain nothing here, and where none can be started they end the program.
  cv::setNumThreads(kNoThreads);
  // Of a file that cannot be read, our own line tells.
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);

  CLI::App app(
      "Pictures of relief from 3 to 8 pictures of one part, taken from one place, each under "
      "another "
      "lamp: print and stains fade, dents, scratches and embossing stand out.",
      "velostrix");
  app.set_version_flag("--version", "velostrix " VELOSTRIX_VERSION);
  app.require_subcommand(1);
  app.footer("Exit codes: 0 done, 1 failed, 2 wrong arguments.");
  AddReconstructCommand(app);
  AddRenderCommand(app);
  AddSheetCommand(app);
  AddInfoCommand(app);

  try {
    RequireCommand(app, argc, argv);
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    app.exit(e);  // prints --help, --version
  } catch (const CLI::ParseError& e) {
    return Complain(kWrongUsage, std::string(e.what()) + "; see velostrix --help");
  } catch (const UsageError& e) {
    return Complain(kWrongUsage, e.what());
  } catch (const std::bad_alloc&) {
    return Complain(kFailed, kOutOfMemory);
  } catch (const cv::Exception& e) {
    return Complain(kFailed, e.code == cv::Error::StsNoMem ? kOutOfMemory : e.err);
  } catch (const std::exception& e) {
    return Complain(kFailed, e.what());
  }
  if (!std::cout.flush()) return Complain(kFailed, "standard output: cannot be written");
  return 0;
}
