// The results that `velostrix reconstruct` wrote to a folder.
#include "apps/result_folder.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "apps/bayer.h"
#include "apps/commands.h"
#include "apps/input_images.h"
#include "apps/run_record.h"

namespace velostrix::cli {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr const char* kExpected = "; expected a folder that velostrix reconstruct wrote";

int TypeOf(Output output) {
  return output == Output::kNormal ? CV_8UC3 : output == Output::kHeight ? CV_16UC1 : CV_8UC1;
}

cv::Mat ReadResult(const std::string& file, Output output, cv::Size size) {
  cv::Mat image = DecodeFile(file);
  if (image.type() == TypeOf(output) && (size.empty() || image.size() == size)) return image;
  throw Failure(file + ": is not the picture that the run made; reconstruct again");
}

struct NotedInput {
  std::string file;
  std::string sha256;
};

std::vector<NotedInput> NotedInputs(const Json& record) {
  std::vector<NotedInput> inputs;
  for (const Json& input : record.value("inputs", Json::array())) {
    inputs.push_back({input.at("file"), input.at("sha256")});
  }
  return inputs;
}

// Records of older versions do not say it.
Reading NotedReading(const Json& record, const std::vector<NotedInput>& inputs) {
  if (const auto reading = record.find("options"); reading != record.end()) {
    const std::string bayer = reading->at("bayer");
    const bool is_known =
        std::find(kBayerPatterns.begin(), kBayerPatterns.end(), bayer) != kBayerPatterns.end();
    if (!bayer.empty() && !is_known) throw Error("options: bayer: '" + bayer + "' is unknown");
    return {reading->at("split_channels"), bayer};
  }
  const auto is_first = [&](const NotedInput& input) { return input.file == inputs[0].file; };
  return {inputs.size() == 3 && std::all_of(inputs.begin(), inputs.end(), is_first), ""};
}

}  // namespace

ResultFolder ReadResults(const std::string& folder) {
  const std::string file = (fs::path(folder) / kRecordName).string();
  const std::vector<char> bytes = ReadBytes(file, kExpected);
  ResultFolder read;
  read.record.assign(bytes.begin(), bytes.end());
  try {
    read.recipe = ParseRecipe(read.record);
    const Json record = Json::parse(read.record);
    NotedReading(record, NotedInputs(record));
    record.at("outputs").get_to(read.outputs);
  } catch (const Error& e) {
    throw Failure(file + ": " + e.what() + kExpected);
  } catch (const Json::exception&) {
    throw Failure(file + ": is not the record of a run" + kExpected);
  }
  cv::Size size;
  for (const Output output : kAllOutputs) {
    const std::string name = FileName(output);
    if (std::find(read.outputs.begin(), read.outputs.end(), name) == read.outputs.end()) continue;
    read.results[output] = ReadResult((fs::path(folder) / name).string(), output, size);
    size = read.results[output].size();
  }
  if (size.empty()) throw Failure(file + ": lists no picture" + kExpected);
  return read;
}

std::vector<ReportInput> ReadInputs(const ResultFolder& folder) {
  const cv::Size result = (*folder.results.begin()).second.size();
  const std::optional<cv::Rect>& region = folder.recipe.parameters.region;
  const auto fits = [&](cv::Size size) {
    return region ? region->size() == result && (*region & cv::Rect({}, size)) == *region
                  : size == result;
  };
  const Json record = Json::parse(folder.record);
  const std::vector<NotedInput> noted = NotedInputs(record);
  const Reading reading = NotedReading(record, noted);
  std::vector<ReportInput> inputs;
  for (size_t k = 0; k < noted.size(); ++k) {
    ReportInput& input = inputs.emplace_back(ReportInput{noted[k].file, {}, {}});
    try {
      Recipe recipe = folder.recipe;
      if (!reading.split_channels && k < recipe.flat.size()) recipe.flat = {recipe.flat[k]};
      const std::vector<InputImage> images = LoadImages({input.file}, {}, reading, recipe);
      const InputImage& image = reading.split_channels ? images.at(k) : images.front();
      if (image.sha256 == noted[k].sha256 && fits(image.pixels.size())) {
        input.pixels = image.pixels;
      } else {
        input.missing = input.file + ": has changed since the run";
      }
    } catch (const std::exception& e) {
      input.missing = e.what();
    }
  }
  return inputs;
}

}  // namespace velostrix::cli
