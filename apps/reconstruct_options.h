// The arguments of `velostrix reconstruct` and what they mean.
#pragma once

#include <CLI/CLI.hpp>
#include <map>
#include <string>
#include <vector>

#include "velostrix/tool.hpp"

namespace velostrix::cli {

// As they stand on the command line.
struct ReconstructOptions {
  std::vector<std::string> files;
  std::string out;
  int bits = 0;  // 0: to be found
  bool split_channels = false;
  bool quiet = false;
  std::string run = "uncali";
  std::string difference = "central";
  std::string outputs = "all";
  std::string region;
  std::vector<std::string> gains;
  std::vector<std::string> offsets;
  Parameters parameters;  // those that stand there as numbers and flags
};

// What they mean.
struct Request {
  Parameters parameters;
  OutputSet given_gains;                // the others are to be chosen
  std::map<Output, int> given_offsets;  // they overrule those that come with a chosen gain
};

// Declares the arguments; parsing stores them in the options.
void DeclareReconstructOptions(CLI::App& command, ReconstructOptions& options);

// Throws UsageError.
Request ParseRequest(const ReconstructOptions& options);

}  // namespace velostrix::cli
