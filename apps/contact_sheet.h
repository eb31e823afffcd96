// One picture of labelled pictures in labelled rows.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velostrix::cli {

struct SheetTile {
  std::string label;
  // 8-bit as it stands; other depths are stretched from their minimum to their maximum.
  cv::Mat image;
};

struct SheetRow {
  std::string label;
  std::vector<SheetTile> tiles;
};

// The image as a tile shows it: CV_8UC3, averaged to this width, or its pixels repeated.
cv::Mat Thumbnail(const cv::Mat& image, int width);

// Pixels that the label of a tile takes.
int LabelWidth(const std::string& label);

// CV_8UC3. Tiles are tile_width pixels wide; a row without tiles is a line of text.
cv::Mat ComposeSheet(const std::vector<SheetRow>& rows, int tile_width);

}  // namespace velostrix::cli
