// One picture of labelled pictures in labelled rows.
#include "apps/contact_sheet.h"

#include <algorithm>
#include <opencv2/imgproc.hpp>

namespace velostrix::cli {
namespace {

constexpr int kGap = 8;         // pixels between tiles
constexpr int kRowLabel = 30;   // pixels above a row
constexpr int kTileLabel = 20;  // pixels above a tile
const cv::Scalar kPaper(255, 255, 255);
const cv::Scalar kInk(32, 32, 32);
constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;
constexpr double kTileText = 0.45;

void Write(cv::Mat& sheet, const std::string& text, cv::Point baseline, double size) {
  cv::putText(sheet, text, baseline, kFont, size, kInk, 1, cv::LINE_AA);
}

cv::Mat ComposeRow(const SheetRow& row, int tile_width, int sheet_width) {
  std::vector<cv::Mat> thumbnails;
  int tallest = 0;
  for (const SheetTile& tile : row.tiles) {
    thumbnails.push_back(Thumbnail(tile.image, tile_width));
    tallest = std::max(tallest, thumbnails.back().rows);
  }
  const int below = row.tiles.empty() ? 0 : kTileLabel + tallest + kGap;
  cv::Mat strip(kRowLabel + below, sheet_width, CV_8UC3, kPaper);
  Write(strip, row.label, {kGap, kRowLabel - 8}, 0.7);
  int x = kGap;
  for (size_t k = 0; k < thumbnails.size(); ++k) {
    Write(strip, row.tiles[k].label, {x, kRowLabel + kTileLabel - 6}, kTileText);
    thumbnails[k].copyTo(strip({{x, kRowLabel + kTileLabel}, thumbnails[k].size()}));
    x += tile_width + kGap;
  }
  return strip;
}

}  // namespace

cv::Mat Thumbnail(const cv::Mat& image, int width) {
  cv::Mat shown = image;
  if (image.depth() != CV_8U) cv::normalize(image, shown, 0, 255, cv::NORM_MINMAX, CV_8U);
  if (shown.channels() == 1) cv::cvtColor(shown, shown, cv::COLOR_GRAY2BGR);
  if (shown.channels() == 4) cv::cvtColor(shown, shown, cv::COLOR_BGRA2BGR);
  const int height = std::max(1, cvRound(static_cast<double>(shown.rows) * width / shown.cols));
  const bool shrinks = width < shown.cols;
  cv::Mat thumbnail;
  cv::resize(shown, thumbnail, {width, height}, 0, 0, shrinks ? cv::INTER_AREA : cv::INTER_NEAREST);
  return thumbnail;
}

int LabelWidth(const std::string& label) {
  return cv::getTextSize(label, kFont, kTileText, 1, nullptr).width;
}

cv::Mat ComposeSheet(const std::vector<SheetRow>& rows, int tile_width) {
  size_t longest = 0;
  for (const SheetRow& row : rows) longest = std::max(longest, row.tiles.size());
  const int width = kGap + static_cast<int>(longest) * (tile_width + kGap);
  std::vector<cv::Mat> strips;
  strips.reserve(rows.size());
  for (const SheetRow& row : rows) strips.push_back(ComposeRow(row, tile_width, width));
  cv::Mat sheet;
  cv::vconcat(strips, sheet);
  return sheet;
}

}  // namespace velostrix::cli
