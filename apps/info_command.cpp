// `velostrix info`: version, build, processor, cores.
#include <iostream>
#include <opencv2/core.hpp>
#include <thread>
#include <utility>

#include "apps/commands.h"
#include "velostrix/version.h"

namespace velostrix::cli {
namespace {

void PrintInfo() {
  constexpr std::pair<int, const char*> kFeatures[] = {
      {CV_CPU_SSSE3, "SSSE3"}, {CV_CPU_SSE4_1, "SSE4.1"}, {CV_CPU_AVX, "AVX"},
      {CV_CPU_AVX2, "AVX2"},   {CV_CPU_FMA3, "FMA3"},     {CV_CPU_AVX512_SKX, "AVX-512"},
      {CV_CPU_NEON, "NEON"}};
  std::cout << "version    " << VELOSTRIX_VERSION << '\n'
            << "build      " << VELOSTRIX_BUILD << '\n'
            << "OpenCV     " << cv::getVersionString() << '\n'
            << "processor ";
  for (const auto& [feature, name] : kFeatures) {
    if (cv::checkHardwareSupport(feature)) std::cout << ' ' << name;
  }
  std::cout << "\ncores      " << std::thread::hardware_concurrency() << '\n';
}

}  // namespace

void AddInfoCommand(CLI::App& app) {
  app.add_subcommand("info", "Print version, build, processor features and number of cores")
      ->callback(PrintInfo);
}

}  // namespace velostrix::cli
