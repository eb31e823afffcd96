// The report of a reconstruction: one page with images, numbers and the script that shows them.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "velostrix/tool.hpp"

namespace velostrix::cli {

// HTML with @DATA@ in place of the data.
extern const std::string_view kReportPage;

struct ReportInput {
  std::string file;
  cv::Mat pixels;       // CV_8UC1, whole; empty when it cannot be shown
  std::string missing;  // why not
};

// A self-contained page below 8 MB: pictures are reduced until they fit. record: the run's record
// as JSON text; title: name of the part; results: as written, at least one, of one size; region:
// the part of the inputs that they show.
std::string MakeReport(const std::string& record, const std::string& title, const Results& results,
                       const std::vector<ReportInput>& inputs,
                       const std::optional<cv::Rect>& region);

}  // namespace velostrix::cli
