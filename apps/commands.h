// The commands of the command line, and their errors.
#pragma once

#include <CLI/CLI.hpp>
#include <array>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace velostrix::cli {

// The arguments themselves are wrong: exit code 2. Any other exception is a failure: exit code 1.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// For cv::setNumThreads.
constexpr int kNoThreads = 0;
constexpr int kAllCores = -1;

// Each adds one command with its options; parsing the arguments then runs it.
// The arguments of the program are for the record of the run.
void AddReconstructCommand(CLI::App& app, const std::vector<std::string>& arguments);
void AddExploreCommand(CLI::App& app, const std::vector<std::string>& arguments);
void AddBatchCommand(CLI::App& app, const std::vector<std::string>& arguments);
void AddMergeCommand(CLI::App& app);
void AddReportCommand(CLI::App& app);
void AddCompareCommand(CLI::App& app);
void AddRenderCommand(CLI::App& app);
void AddSheetCommand(CLI::App& app);
void AddInfoCommand(CLI::App& app);

// The whole text as a number; false when it is not one.
template <typename T>
bool ParseNumber(const std::string& text, T& number) {
  std::istringstream stream(text);
  stream.imbue(std::locale::classic());
  return stream >> number && stream.peek() == std::istringstream::traits_type::eof();
}

// Refuses NaN, which passes the parser's range checks.
inline CLI::Validator IsNumber() {
  return {[](std::string& text) {
            double number = 0.0;
            return ParseNumber(text, number) ? std::string() : text + ": expected a number";
          },
          ""};
}

// One of the names.
template <size_t N>
CLI::IsMember OneOf(const std::array<const char*, N>& names) {
  return CLI::IsMember(std::vector<std::string>(names.begin(), names.end()));
}

// The folder or file to write to.
inline CLI::Option* AddOut(CLI::App& command, std::string& out, const std::string& description) {
  const auto is_named = [](std::string& text) {
    return text.empty() ? std::string("expected a name") : std::string();
  };
  return command.add_option("--out", out, description)
      ->required()
      ->check(CLI::Validator(is_named, ""));
}

}  // namespace velostrix::cli
