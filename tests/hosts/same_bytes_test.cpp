// The same scene gives the same bytes in C++, C#, Python and on the command line.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

#include "scene/sample_scene.h"
#include "velostrix/auto_gain.hpp"
#include "velostrix/tool.hpp"

namespace velostrix {
namespace {

namespace fs = std::filesystem;

const fs::path kFolder = VELOSTRIX_SAME_BYTES_FOLDER;
constexpr const char* kRuns[] = {"uncali", "cali", "partrows", "partcols"};

Parameters Tuned() {
  Parameters tuned;
  tuned.region = cv::Rect(8, 6, 80, 60);
  tuned.scale = 0.75;
  tuned.equalise = true;
  tuned.difference = Difference::kForward;
  tuned.blur_radius = 2;
  tuned.iteration_cap = 30;
  tuned.band = 20;
  tuned.factor_gain = 0.9;
  tuned.curvature = {120, 300.5};
  tuned.magnitude = {3, 200.25};
  tuned.channel = {{{100, 90.0}, {140, -90.0}, {5, 4000.0}}};
  return tuned;
}
constexpr const char* kTunedArguments =
    " --roi 8,6,80,60 --scale 0.75 --equalise --difference forward --blur-radius 2"
    " --iteration-cap 30"
    " --band 20 --gain factor=0.9 --gain curvature=300.5 --gain magnitude=200.25"
    " --gain channel0=90 --gain channel1=-90 --gain channel2=4000 --offset curvature=120"
    " --offset magnitude=3 --offset channel0=100 --offset channel1=140 --offset channel2=5";

std::string ReadFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string Bytes(const cv::Mat& image) {
  return {reinterpret_cast<const char*>(image.data), image.total() * image.elemSize()};
}

class SameBytes : public testing::Test {
 protected:
  // Image files for all hosts, and what C++ makes of them, by the folder of a host's results.
  static void SetUpTestSuite() {
    fs::remove_all(kFolder);
    fs::create_directories(kFolder);
    scene::SceneOptions options;
    options.width = 96;
    options.height = 72;
    options.images = 4;
    const std::vector<cv::Mat> images = scene::Render(options).images;
    for (size_t k = 0; k < images.size(); ++k) {
      const std::string stem = (kFolder / ("image" + std::to_string(k))).string();
      std::ofstream(stem + ".raw", std::ios::binary) << Bytes(images[k]);
      cv::imwrite(stem + ".png", images[k]);
    }
    Tool tool;
    for (int run = 0; run < 4; ++run) {
      Parameters parameters;
      parameters.run = static_cast<velostrix::Run>(run);
      parameters = ChooseGains(tool, images, parameters);
      expected_[std::string("plain/") + kRuns[run]] = tool.Reconstruct(images, parameters);
      parameters = Tuned();
      parameters.run = static_cast<velostrix::Run>(run);
      expected_[std::string("tuned/") + kRuns[run]] = tool.Reconstruct(images, parameters);
    }
  }

  static void Run(const std::string& command) {
    ASSERT_EQ(std::system(("cd " + kFolder.string() + " && " + command).c_str()), 0) << command;
  }

  static void ExpectFiles(const fs::path& folder, const Results& expected,
                          const std::string& extension) {
    for (const Output output : kAllOutputs) {
      const fs::path file = kFolder / folder / (Name(output) + extension);
      const std::string bytes = extension == ".raw"
                                    ? ReadFile(file)
                                    : Bytes(cv::imread(file.string(), cv::IMREAD_UNCHANGED));
      ASSERT_FALSE(expected[output].empty());
      EXPECT_TRUE(bytes == Bytes(expected[output])) << file << " differs from C++";
    }
  }

  static void ExpectRawFiles(const std::string& host) {
    for (const auto& [name, results] : expected_) ExpectFiles(host + '/' + name, results, ".raw");
  }

  static inline std::map<std::string, Results> expected_;
};

TEST_F(SameBytes, Csharp) {
  Run(VELOSTRIX_MONO " " VELOSTRIX_CSHARP_HOST " . 96 72 4");
  ExpectRawFiles("csharp");
}

#ifdef VELOSTRIX_CLI
TEST_F(SameBytes, CommandLineAndPythonByItsRecipes) {
  for (const auto& [name, results] : expected_) {
    const bool is_tuned = name.rfind("tuned", 0) == 0;
    Run(VELOSTRIX_CLI " reconstruct --quiet image?.png --out cli/" + name + " --run " +
        name.substr(6) + (is_tuned ? kTunedArguments : ""));
    ExpectFiles("cli/" + name, results, ".png");
    Run(VELOSTRIX_MONO " " VELOSTRIX_CSHARP_HOST " . 96 72 4 cli/" + name + "/run.json");
    ExpectFiles("csharp/recipe", results, ".raw");
  }
  // Chooses its own gains, and takes the rest from the recipes of the command line.
  Run(VELOSTRIX_PYTHON " " VELOSTRIX_TEST_FOLDER "/same_bytes_host.py . 96 72 4");
  ExpectRawFiles("python");
}
#endif

}  // namespace
}  // namespace velostrix
