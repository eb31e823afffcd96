// Labelled pictures in labelled rows, as one picture.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velostrix::cli {

struct SheetTile {
  std::string label;
  cv::Mat
      image;  // 8-bit as it stands; other depths are stretched from their minimum to their maximum
};

struct SheetRow {
  std::string label;
  std::vector<SheetTile> tiles;
};

// CV_8UC3. Tiles are tile_width pixels wide.
cv::Mat ComposeSheet(const std::vector<SheetRow>& rows, int tile_width);

}  // namespace velostrix::cli
