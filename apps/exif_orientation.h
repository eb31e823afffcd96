// How a camera was held.
#pragma once

#include <vector>

namespace velostrix::cli {

// The orientation that a JPEG, PNG or TIFF file says to be shown in: 1 (as it is) to 8, as EXIF 2.3
// numbers them; 1 where the file says nothing.
int ExifOrientation(const std::vector<char>& file);

}  // namespace velostrix::cli
