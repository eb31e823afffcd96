// The report of a reconstruction: one page with images, numbers and the script that shows them.
#include "apps/report.h"

#include <nettle/base64.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <opencv2/imgproc.hpp>

#include "apps/codecs.h"
#include "apps/commands.h"
#include "apps/stderr_capture.h"

namespace velostrix::cli {
namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kMostBytes = 7'900'000;  // of the page
constexpr int64_t kMostPixels = 750'000;  // of a picture, to begin with

std::string Base64(const std::vector<uint8_t>& bytes) {
  std::string text(BASE64_ENCODE_RAW_LENGTH(bytes.size()), '\0');
  base64_encode_raw(text.data(), bytes.size(), bytes.data());
  return text;
}

std::string Encode(const char* extension, const cv::Mat& image) {
  std::vector<uint8_t> bytes;
  bool is_done = false;
  const Codecs& codecs = LoadCodecs();
  CodeQuietly([&] { is_done = codecs.encode(extension, image, bytes); });
  if (!is_done) throw Failure("a picture of the report cannot be encoded");
  return Base64(bytes);
}

cv::Size Reduced(cv::Size size, int factor) {
  return {(size.width + factor - 1) / factor, (size.height + factor - 1) / factor};
}

cv::Mat Reduce(const cv::Mat& image, cv::Size size) {
  if (image.size() == size) return image;
  cv::Mat reduced;
  cv::resize(image, reduced, size, 0, 0, cv::INTER_AREA);
  return reduced;
}

// How many pixels have each level; of 16 bits, the high byte.
std::vector<int> Histogram(const cv::Mat& image) {
  std::vector<int> counts(256);
  const bool is_wide = image.depth() == CV_16U;
  for (int i = 0; i < image.rows; ++i) {
    if (is_wide) {
      const uint16_t* const row = image.ptr<uint16_t>(i);
      for (int j = 0; j < image.cols; ++j) ++counts[row[j] >> 8];
    } else {
      const uint8_t* const row = image.ptr(i);
      for (int j = 0; j < image.cols; ++j) ++counts[row[j]];
    }
  }
  return counts;
}

// 16 bits as two planes of bytes.
Json ResultPicture(const cv::Mat& image) {
  if (image.depth() == CV_8U) return {{"png", Encode(".png", image)}};
  cv::Mat high(image.size(), CV_8UC1);
  cv::Mat low(image.size(), CV_8UC1);
  for (int i = 0; i < image.rows; ++i) {
    const uint16_t* const row = image.ptr<uint16_t>(i);
    for (int j = 0; j < image.cols; ++j) {
      high.at<uint8_t>(i, j) = static_cast<uint8_t>(row[j] >> 8);
      low.at<uint8_t>(i, j) = static_cast<uint8_t>(row[j] & 0xFF);
    }
  }
  return {{"png", Encode(".png", high)}, {"low", Encode(".png", low)}};
}

Json InputPicture(const ReportInput& input, const std::optional<cv::Rect>& region, cv::Size size) {
  Json json = {{"file", input.file}};
  if (input.pixels.empty()) {
    json["missing"] = input.missing;
  } else {
    const cv::Mat shown = region ? input.pixels(*region) : input.pixels;
    json["jpeg"] = Encode(".jpg", Reduce(shown, size));
  }
  return json;
}

// The page draws the normal image from the channels.
Results WithChannels(Results results) {
  int channel = 0;
  for (const Output output : {Output::kChannel0, Output::kChannel1, Output::kChannel2}) {
    const cv::Mat& normal = results[Output::kNormal];
    if (!normal.empty() && results[output].empty()) {
      cv::extractChannel(normal, results[output], channel);
    }
    ++channel;
  }
  return results;
}

void AddPictures(const Results& results, const std::vector<ReportInput>& inputs,
                 const std::optional<cv::Rect>& region, cv::Size size, Json& data) {
  data["page_width"] = size.width;
  data["page_height"] = size.height;
  for (const auto& [output, image] : results) {
    if (output == Output::kNormal) continue;
    data["results"][Name(output)].update(ResultPicture(Reduce(image, size)));
  }
  data["inputs"] = Json::array();
  for (const ReportInput& input : inputs) {
    data["inputs"].push_back(InputPicture(input, region, size));
  }
}

}  // namespace

std::string MakeReport(const std::string& record, const std::string& title, const Results& made,
                       const std::vector<ReportInput>& inputs,
                       const std::optional<cv::Rect>& region) {
  const Results results = WithChannels(made);
  const cv::Size size = (*results.begin()).second.size();
  Json data = {{"title", title},
               {"record", Json::parse(record)},
               {"width", size.width},
               {"height", size.height},
               {"normal", !results[Output::kNormal].empty()},
               {"results", Json::object()}};
  for (const auto& [output, image] : results) {
    if (output != Output::kNormal) data["results"][Name(output)]["histogram"] = Histogram(image);
  }

  constexpr std::string_view kMark = "@DATA@";
  const size_t place = kReportPage.find(kMark);
  int factor = 1;
  while (int64_t{Reduced(size, factor).area()} > kMostPixels) ++factor;
  for (;; ++factor) {
    data["reduction"] = factor;
    AddPictures(results, inputs, region, Reduced(size, factor), data);
    const std::string text = data.dump(-1, ' ', false, Json::error_handler_t::replace);
    std::string page(kReportPage.substr(0, place));
    page.reserve(kReportPage.size() + text.size());
    for (const char letter : text) {
      // No text in the data can end the element that contains it.
      if (letter == '<')
        page += "\\u003c";
      else
        page += letter;
    }
    page += kReportPage.substr(place + kMark.size());
    if (page.size() <= kMostBytes || Reduced(size, factor).area() == 1) return page;
  }
}

}  // namespace velostrix::cli
