// The EXIF orientation of image files.
#pragma once

#include <vector>

namespace velostrix::cli {

// The orientation in which a JPEG, PNG or TIFF file is to be shown: 1 (as stored) to 8, numbered as
// in EXIF 2.3; 1 when the file has none.
int ExifOrientation(const std::vector<char>& file);

}  // namespace velostrix::cli
