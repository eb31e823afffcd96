// The command line as a user calls it: what it writes, what it says, and how it ends.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Ending {
  int exit_code;
  std::string said;  // on stdout and stderr
};

Ending Shell(const std::string& command) {
  Ending ending = {-1, ""};
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return ending;
  std::array<char, 4096> buffer;
  while (std::fgets(buffer.data(), static_cast<int>(buffer.size()), pipe) != nullptr) {
    ending.said += buffer.data();
  }
  const int status = pclose(pipe);
  ending.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return ending;
}

// A folder that goes with the test, holding inputs: image0.png ... image4.png of the sample scene,
// 96 x 72.
class CliTest : public testing::Test {
 protected:
  CliTest() {
    std::string pattern = (fs::temp_directory_path() / "velostrix-cli-XXXXXX").string();
    folder_ = mkdtemp(pattern.data());
    EXPECT_EQ(Velostrix("render --out inputs --images 5 --size 96x72 --quiet").exit_code, 0);
  }
  ~CliTest() override { fs::remove_all(folder_); }

  Ending Velostrix(const std::string& arguments) const {
    return Shell("cd " + folder_.string() + " && " VELOSTRIX_CLI " " + arguments);
  }

  fs::path Path(const std::string& name) const { return folder_ / name; }
  cv::Mat Read(const std::string& name) const {
    return cv::imread(Path(name).string(), cv::IMREAD_UNCHANGED);
  }
  nlohmann::json ReadJson(const std::string& name) const {
    std::ifstream stream(Path(name));
    return nlohmann::json::parse(stream);
  }
  std::vector<std::string> FilesIn(const std::string& name) const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(Path(name))) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  fs::path folder_;
};

TEST_F(CliTest, ReconstructWritesAllImagesAndItsRecord) {
  const Ending ending = Velostrix("reconstruct inputs/image*.png --out out");
  ASSERT_EQ(ending.exit_code, 0) << ending.said;
  EXPECT_EQ(FilesIn("out"),
            (std::vector<std::string>{"channel0.png", "channel1.png", "channel2.png",
                                      "curvature.png", "factor.png", "height.png", "magnitude.png",
                                      "normal.png", "run.json"}));
  for (const std::string& name : FilesIn("out")) {
    if (name == "run.json") continue;
    const int type = name == "height.png" ? CV_16UC1 : name == "normal.png" ? CV_8UC3 : CV_8UC1;
    EXPECT_EQ(Read("out/" + name).type(), type) << name;
    EXPECT_EQ(Read("out/" + name).size(), cv::Size(96, 72)) << name;
  }
  EXPECT_NE(ending.said.find("image3.png: 0 % saturated, 0 % black"), std::string::npos);
  EXPECT_NE(ending.said.find("gains and offsets: curvature "), std::string::npos);
  EXPECT_EQ(ending.said.find("warning"), std::string::npos) << ending.said;

  const nlohmann::json record = ReadJson("out/run.json");
  EXPECT_EQ(record["inputs"].size(), 5U);
  EXPECT_EQ(record["inputs"][0]["saturated_share"], 0.0);
  EXPECT_EQ(record["singular_values"].size(), 5U);
  EXPECT_EQ(record["sizes"]["working"], record["sizes"]["input"]);
  EXPECT_EQ(record["parameters"]["run"], "uncali");
  EXPECT_GT(record["parameters"]["scaling"]["curvature"]["gain"], 1.0);
  EXPECT_EQ(record["parameters"]["scaling"]["curvature"]["offset"], 128);
  EXPECT_GT(record["times_ms"]["run"], 0.0);
  EXPECT_EQ(record["outputs"].size(), 8U);
}

TEST_F(CliTest, GivenParametersAreUsedAndRecorded) {
  const Ending ending = Velostrix(
      "reconstruct inputs/image*.png --out out --run partcols --band 30 --outputs height,curvature "
      "--roi 10,8,69,57 --scale 0.5 --equalise --difference forward --blur 2 --iterations 9 "
      "--gain curvature=33.5 --offset curvature=-7 --gain factor=2");
  ASSERT_EQ(ending.exit_code, 0) << ending.said;
  EXPECT_EQ(FilesIn("out"), (std::vector<std::string>{"curvature.png", "height.png", "run.json"}));
  EXPECT_EQ(Read("out/height.png").size(), cv::Size(60, 50));

  const nlohmann::json record = ReadJson("out/run.json");
  const nlohmann::json p = record["parameters"];
  EXPECT_EQ(p["run"], "partcols");
  EXPECT_EQ(p["band"], 30);
  EXPECT_EQ(p["roi"], nlohmann::json({10, 8, 69, 57}));
  EXPECT_EQ(p["scale"], 0.5);
  EXPECT_EQ(p["equalise"], true);
  EXPECT_EQ(p["difference"], "forward");
  EXPECT_EQ(p["blur"], 2);
  EXPECT_EQ(p["iterations"], 9);
  EXPECT_EQ(p["scaling"]["factor"]["gain"], 2.0);
  EXPECT_EQ(p["scaling"]["curvature"],
            nlohmann::json({{"gain", 33.5}, {"offset", -7}, {"gain_given", true}}));
  EXPECT_EQ(record["sizes"]["working"], nlohmann::json({{"width", 30}, {"height", 25}}));
}

TEST_F(CliTest, CalibratedRunOnTheRingFindsTheAlbedo) {
  ASSERT_EQ(Velostrix("reconstruct inputs/image*.png --out out --run cali --quiet").said, "");
  const cv::Mat albedo = Read("inputs/truth/albedo.tiff");
  cv::Mat expected;
  cv::normalize(albedo, expected, 0, 255, cv::NORM_MINMAX, CV_8U);
  cv::Mat difference;
  cv::absdiff(Read("out/factor.png"), expected, difference);
  EXPECT_LT(cv::mean(difference)[0], 6.0);
}

TEST_F(CliTest, SplitChannelsIsThreeFilesInOne) {
  std::vector<cv::Mat> lamps;
  for (int k = 2; k >= 0; --k) lamps.push_back(Read("inputs/image" + std::to_string(k) + ".png"));
  cv::Mat color;
  cv::merge(lamps, color);  // blue, green, red
  cv::imwrite(Path("color.png").string(), color);
  ASSERT_EQ(Velostrix("reconstruct inputs/image[012].png --out three --quiet").exit_code, 0);
  ASSERT_EQ(Velostrix("reconstruct color.png --split-channels --out one --quiet").exit_code, 0);
  for (const char* name : {"curvature.png", "normal.png", "height.png"}) {
    EXPECT_EQ(cv::norm(Read(std::string("one/") + name), Read(std::string("three/") + name)), 0.0);
  }
}

TEST_F(CliTest, ConvertsFormatsAndSaysSo) {
  const cv::Mat image = Read("inputs/image0.png");
  cv::Mat color;
  cv::merge(std::vector<cv::Mat>(3, image), color);
  cv::imwrite(Path("color.bmp").string(), color);
  cv::Mat words;
  image.convertTo(words, CV_16U, 257.0);
  cv::imwrite(Path("words.tiff").string(), words);
  const Ending mixed = Velostrix("reconstruct inputs/image0.png color.bmp words.tiff --out mixed");
  ASSERT_EQ(mixed.exit_code, 0) << mixed.said;
  EXPECT_NE(mixed.said.find("color.bmp: 0 % saturated, 0 % black; colour converted to grey"),
            std::string::npos);
  EXPECT_NE(mixed.said.find("words.tiff: 0 % saturated, 0 % black; 16-bit samples divided by 257"),
            std::string::npos);
  EXPECT_NE(mixed.said.find("warning: the images are too alike to show relief"), std::string::npos);
  // The three are one image now.
  EXPECT_LT(ReadJson("mixed/run.json")["singular_values"][1], 1e-6);
}

TEST_F(CliTest, WarnsOfBadExposure) {
  const cv::Mat image = Read("inputs/image0.png");
  cv::imwrite(Path("bright.png").string(), image * 4.0);
  cv::imwrite(Path("dark.png").string(), image * 0.1);
  cv::Mat half = image.clone();
  half.rowRange(0, 36).setTo(0);
  cv::imwrite(Path("half.png").string(), half);
  const Ending ending = Velostrix("reconstruct bright.png dark.png half.png --out out");
  ASSERT_EQ(ending.exit_code, 0) << ending.said;
  for (const char* warning :
       {"warning: bright.png: ", "of the pixels are saturated; expose shorter",
        "warning: dark.png: too dark (mean level",
        "warning: half.png: 50.0 % of the pixels are black"}) {
    EXPECT_NE(ending.said.find(warning), std::string::npos) << warning << "\n" << ending.said;
  }
  EXPECT_EQ(ReadJson("out/run.json")["warnings"].size(), 3U);
}

TEST_F(CliTest, RenderWritesTheSceneAndItsTruth) {
  ASSERT_EQ(Velostrix("render --out a --lamps random --images 3 --size 40x30 --seed 7").exit_code,
            0);
  ASSERT_EQ(Velostrix("render --out b --lamps random --images 3 --size 40x30 --seed 7").exit_code,
            0);
  EXPECT_EQ(FilesIn("a"),
            (std::vector<std::string>{"image0.png", "image1.png", "image2.png", "truth"}));
  EXPECT_EQ(Shell("diff -r " + Path("a").string() + " " + Path("b").string()).said, "");
  const nlohmann::json scene = ReadJson("a/truth/scene.json");
  const cv::Mat normals = Read("a/truth/normals.tiff");
  const cv::Mat albedo = Read("a/truth/albedo.tiff");
  ASSERT_EQ(normals.type(), CV_32FC3);
  EXPECT_EQ(Read("a/truth/height.tiff").type(), CV_32FC1);
  const nlohmann::json& l = scene["lamps"][1];
  const cv::Vec3f lamp(l[0], l[1], l[2]);
  const float level = albedo.at<float>(9, 21) * normals.at<cv::Vec3f>(9, 21).dot(lamp);
  EXPECT_NEAR(Read("a/image1.png").at<uint8_t>(9, 21), level, 6.5) << "noise ends at 6 levels";
}

TEST_F(CliTest, SheetPutsFoldersIntoRows) {
  ASSERT_EQ(Velostrix("sheet inputs inputs/truth --out sheet.png --tile 50").exit_code, 0);
  const cv::Mat sheet = Read("sheet.png");
  EXPECT_EQ(sheet.cols, 8 + 5 * (50 + 8));
  EXPECT_GT(sheet.rows, 2 * 38);
}

TEST_F(CliTest, TellsAboutItself) {
  EXPECT_NE(Velostrix("info").said.find("processor"), std::string::npos);
  EXPECT_EQ(Velostrix("--version").exit_code, 0);
  for (const char* command : {"", "reconstruct ", "render ", "sheet ", "info "}) {
    const Ending help = Velostrix(std::string(command) + "--help");
    EXPECT_EQ(help.exit_code, 0) << command;
    EXPECT_NE(help.said.find("Exit codes: 0 done"), std::string::npos) << command;
  }
}

// One line on stderr that names the argument or file and what is expected; nothing written.
TEST_F(CliTest, Refusals) {
  std::ofstream(Path("text.png")) << "no picture";
  std::ofstream(Path("empty.png"));
  cv::imwrite(Path("small.png").string(), cv::Mat(70, 96, CV_8UC1, cv::Scalar(9)));
  cv::imwrite(Path("float.tiff").string(), cv::Mat(72, 96, CV_32FC1, cv::Scalar(9)));
  {
    std::ifstream whole(Path("inputs/image0.png"), std::ios::binary);
    std::vector<char> bytes{std::istreambuf_iterator<char>(whole), {}};
    std::ofstream(Path("cut.png"), std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size() / 2));
  }
  const std::vector<std::string> at_first = FilesIn(".");

  struct Case {
    std::string arguments;
    int exit_code;
    std::vector<const char*> said;
  };
  const std::string good = "reconstruct inputs/image*.png --out out ";
  const std::string two = "inputs/image0.png inputs/image1.png ";
  const std::vector<Case> cases = {
      {"", 2, {"expected one of reconstruct render sheet info"}},
      {"frobnicate", 2, {"frobnicate: no such command", "expected one of reconstruct"}},
      {"reconstruct " + two + two, 2, {"--out is required"}},
      {"reconstruct " + two + "--out out", 2, {"IMAGE: 2 files given", "expected 3 to 8"}},
      {"reconstruct " + two + two + two + two + two + "--out out", 2, {"IMAGE: 10 files given"}},
      {"reconstruct " + two + "--split-channels --out out", 2, {"expected 1 colour file"}},
      {good + "--frobnicate", 2, {"--frobnicate"}},
      {good + "--run best", 2, {"--run", "best", "uncali", "partcols"}},
      {good + "--band 9", 2, {"--band", "9"}},
      {good + "--outputs factor,depth", 2, {"--outputs factor,depth", "curvature"}},
      {good + "--roi 1,2,3", 2, {"--roi 1,2,3", "X1,Y1,X2,Y2"}},
      {good + "--roi 9,9,5,20", 2, {"--roi 9,9,5,20", "first and last pixel"}},
      {good + "--roi 0,0,99999999999,5", 2, {"--roi", "X1,Y1,X2,Y2"}},
      {good + "--roi 0,0,96,71", 1, {"--roi 0,0,96,71", "from 0,0 to 95,71"}},
      {good + "--roi 4,4,5,9", 1, {"2 x 6 pixels", "at least 3 x 2"}},
      {good + "--scale 0", 2, {"--scale", "0.001"}},
      {good + "--blur -1", 2, {"--blur", "0 to 32767"}},
      {good + "--iterations many", 2, {"--iterations", "many"}},
      {good + "--difference both", 2, {"--difference", "central", "forward"}},
      {good + "--gain height=2", 2, {"--gain height=2", "NAME=NUMBER", "factor, curvature"}},
      {good + "--gain curvature", 2, {"--gain curvature", "NAME=NUMBER"}},
      {good + "--offset channel0=1.5", 2, {"--offset channel0=1.5", "NAME=NUMBER"}},
      {"reconstruct " + two + "none.png --out out", 1, {"none.png: no such file", "expected"}},
      {"reconstruct " + two + "inputs --out out", 1, {"inputs: is a folder", "expected"}},
      {"reconstruct " + two + "text.png --out out", 1, {"text.png: cannot be decoded", "PNG"}},
      {"reconstruct " + two + "cut.png --out out", 1, {"cut.png: cannot be decoded", "PNG"}},
      {"reconstruct " + two + "empty.png --out out", 1, {"empty.png: is empty"}},
      {"reconstruct " + two + "float.tiff --out out", 1, {"float.tiff", "8 or 16 bits"}},
      {"reconstruct " + two + "small.png --out out", 1, {"small.png: 96 x 70", "96 x 72"}},
      {"reconstruct inputs/image0.png --split-channels --out out", 1, {"expected a colour image"}},
      {"reconstruct inputs/image*.png --out small.png", 1, {"small.png: is a file", "folder"}},
      {"reconstruct inputs/image*.png --out small.png/x --quiet", 1, {"small.png/x"}},
      {"render --out out --images 2", 2, {"--images", "3 to 8"}},
      {"render --out out --size 640", 2, {"--size 640", "WIDTHxHEIGHT"}},
      {"render --out out --size 8x8", 2, {"--size 8x8", "from 16"}},
      {"render --out out --lamps sun", 2, {"--lamps", "ring", "random"}},
      {"render --out out --seed -1", 2, {"--seed"}},
      {"sheet out --out sheet.png", 1, {"out: no such folder"}},
      {"sheet inputs --out sheet.txt", 2, {"--out sheet.txt", ".png"}}};
  for (const Case& c : cases) {
    SCOPED_TRACE("velostrix " + c.arguments);
    // Notes are no part of the error; they go where it does not.
    const std::string quiet = c.arguments.rfind("reconstruct", 0) == 0 ? " --quiet" : "";
    const Ending ending = Velostrix(c.arguments + quiet);
    EXPECT_EQ(ending.exit_code, c.exit_code) << ending.said;
    EXPECT_EQ(std::count(ending.said.begin(), ending.said.end(), '\n'), 1) << ending.said;
    EXPECT_EQ(ending.said.rfind("velostrix: ", 0), 0U) << ending.said;
    for (const char* fragment : c.said) {
      EXPECT_NE(ending.said.find(fragment), std::string::npos) << fragment << "\n" << ending.said;
    }
  }
  EXPECT_EQ(FilesIn("."), at_first) << "something was written";
}

}  // namespace
