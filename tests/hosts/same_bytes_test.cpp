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
#include "velostrix/uncalibration.h"

namespace velostrix {
namespace {

namespace fs = std::filesystem;

constexpr int kWidth = 96;
constexpr int kHeight = 72;
constexpr int kCount = 4;

const std::map<std::string, Run> kRuns = {{"uncali", Run::kUncalibrated},
                                          {"cali", Run::kCalibrated},
                                          {"partrows", Run::kPartRows},
                                          {"partcols", Run::kPartCols}};

std::string ReadFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string Bytes(const cv::Mat& image) {
  return {reinterpret_cast<const char*>(image.data), image.total() * image.elemSize()};
}

std::string Quoted(const fs::path& path) { return '"' + path.string() + '"'; }

class SameBytes : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    fs::remove_all(Folder());
    fs::create_directories(Folder());
    for (size_t k = 0; k < Images().size(); ++k) {
      const fs::path stem = Folder() / ("image" + std::to_string(k));
      const std::string bytes = Bytes(Images()[k]);
      std::ofstream(stem.string() + ".raw", std::ios::binary) << bytes;
      cv::imwrite(stem.string() + ".png", Images()[k]);
      cv::imwrite(stem.string() + ".pgm", Images()[k]);
    }
  }

  static fs::path Folder() { return VELOSTRIX_SAME_BYTES_FOLDER; }

  static const std::vector<cv::Mat>& Images() {
    static const std::vector<cv::Mat> images = [] {
      scene::SceneOptions options;
      options.width = kWidth;
      options.height = kHeight;
      options.images = kCount;
      return scene::Render(options).images;
    }();
    return images;
  }

  static std::string Arguments(const char* extension) {
    std::string arguments;
    for (int k = 0; k < kCount; ++k) {
      arguments += ' ' + Quoted(Folder() / ("image" + std::to_string(k) + extension));
    }
    return arguments;
  }

  static void RunHost(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }

  static void RunRawHost(const std::string& command) {
    RunHost(command + ' ' + Quoted(Folder()) + ' ' + std::to_string(kWidth) + ' ' +
            std::to_string(kHeight) + ' ' + std::to_string(kCount));
  }

  // Everything left to its default, gains chosen from the images.
  static Results Plain(velostrix::Run run) {
    Parameters parameters;
    parameters.run = run;
    Tool tool;
    return tool.Reconstruct(Images(), ChooseGains(tool, Images(), parameters));
  }

  // Everything set, straight through the flat interface.
  static Results Tuned(velostrix::Run run) {
    UnCalibrationParam param = {};
    param.image_count = kCount;
    param.width = param.row_step = kWidth;
    param.height = kHeight;
    for (int32_t& enable : param.output_enable) enable = 1;
    param.scale = 0.75;
    param.difference_mode = 1;
    param.blur_radius = 2;
    param.iteration_cap = 30;
    param.factor_gain = 0.9;
    param.curvature = {120, 300.5};
    param.magnitude = {3, 200.25};
    param.channel[0] = {100, 90.0};
    param.channel[1] = {140, -90.0};
    param.channel[2] = {5, 4000.0};
    param.equalise_on = 1;
    UnCalibrationTool* tool = CreateVelostrixUnCalibrationToolPtr_CPU(nullptr);
    EXPECT_TRUE(SetVelostrixUnCalibrationToolParam_CPU(tool, &param));
    EXPECT_TRUE(SetVelostrixUnCalibrationToolROI_CPU(tool, 8, 6, 87, 65));
    InitialVelostrixUnCalibrationToolImage_CPU(tool);
    for (const cv::Mat& image : Images()) {
      EXPECT_TRUE(SetVelostrixUnCalibrationToolImage_CPU(tool, &image));
    }
    Results r;
    const auto call = [&](auto function, auto... band) {
      return function(tool, &r[Output::kFactor], &r[Output::kCurvature], &r[Output::kMagnitude],
                      &r[Output::kChannel0], &r[Output::kChannel1], &r[Output::kChannel2],
                      &r[Output::kNormal], &r[Output::kHeight], band...);
    };
    constexpr int32_t kBand = 20;
    const int32_t done = run == velostrix::Run::kCalibrated
                             ? call(RunVelostrixUnCalibration_CPU_cali)
                         : run == velostrix::Run::kPartRows
                             ? call(RunVelostrixUnCalibration_CPU_partrows_uncali, kBand)
                         : run == velostrix::Run::kPartCols
                             ? call(RunVelostrixUnCalibration_CPU_partcols_uncali, kBand)
                             : call(RunVelostrixUnCalibration_CPU_uncali);
    EXPECT_EQ(done, 1);
    for (const Output output : kAllOutputs) r[output] = r[output].clone();
    ReleaseVelostrixUnCalibrationToolImage_CPU(tool);
    DestroyVelostrixUnCalibrationToolPtr_CPU(tool);
    return r;
  }

  static void ExpectRawFiles(const std::string& host) {
    for (const auto& [name, run] : kRuns) {
      for (const bool is_plain : {true, false}) {
        const Results expected = is_plain ? Plain(run) : Tuned(run);
        const fs::path folder = Folder() / host / (is_plain ? "plain" : "tuned") / name;
        for (const Output output : kAllOutputs) {
          const fs::path file = folder / (std::string(Name(output)) + ".raw");
          EXPECT_TRUE(ReadFile(file) == Bytes(expected[output])) << file << " differs from C++";
        }
      }
    }
  }

  static void ExpectImageFiles(const fs::path& folder, const Results& expected,
                               const std::string& extension) {
    for (const Output output : kAllOutputs) {
      fs::path file = folder / (std::string(Name(output)) + extension);
      if (!fs::exists(file)) file.replace_extension(".ppm");
      const cv::Mat image = cv::imread(file.string(), cv::IMREAD_UNCHANGED);
      EXPECT_TRUE(image.type() == expected[output].type() &&
                  Bytes(image) == Bytes(expected[output]))
          << file << " differs from C++";
    }
  }
};

TEST_F(SameBytes, Python) {
  RunRawHost(VELOSTRIX_PYTHON " " VELOSTRIX_TEST_FOLDER "/same_bytes_host.py");
  ExpectRawFiles("python");
}

TEST_F(SameBytes, Csharp) {
  RunRawHost(VELOSTRIX_MONO " " VELOSTRIX_CSHARP_FOLDER "/SameBytesHost.exe");
  ExpectRawFiles("csharp");
}

TEST_F(SameBytes, CsharpSample) {
  const fs::path out = Folder() / "sample";
  RunHost(VELOSTRIX_MONO " " VELOSTRIX_CSHARP_FOLDER "/ReconstructPgm.exe " + Quoted(out) +
          Arguments(".pgm"));
  ExpectImageFiles(out, Plain(velostrix::Run::kUncalibrated), ".pgm");
}

TEST_F(SameBytes, PythonExamplePlots) {
  const fs::path plot = Folder() / "relief.png";
  RunHost(VELOSTRIX_PYTHON " " VELOSTRIX_PYTHON_FOLDER "/examples/plot_relief.py --save " +
          Quoted(plot) + Arguments(".png"));
  EXPECT_FALSE(cv::imread(plot.string()).empty());
}

#ifdef VELOSTRIX_CLI
TEST_F(SameBytes, CommandLine) {
  const std::string tuned =
      " --roi 8,6,87,65 --scale 0.75 --equalise --difference forward --blur 2 --iterations 30"
      " --band 20 --gain factor=0.9 --gain curvature=300.5 --gain magnitude=200.25"
      " --gain channel0=90 --gain channel1=-90 --gain channel2=4000 --offset curvature=120"
      " --offset magnitude=3 --offset channel0=100 --offset channel1=140 --offset channel2=5";
  for (const auto& [name, run] : kRuns) {
    const fs::path out = Folder() / "cli" / name;
    const std::string command =
        VELOSTRIX_CLI " reconstruct --quiet --run " + name + Arguments(".png") + " --out ";
    RunHost(command + Quoted(out / "plain"));
    ExpectImageFiles(out / "plain", Plain(run), ".png");
    RunHost(command + Quoted(out / "tuned") + tuned);
    ExpectImageFiles(out / "tuned", Tuned(run), ".png");
  }
}
#endif

}  // namespace
}  // namespace velostrix
