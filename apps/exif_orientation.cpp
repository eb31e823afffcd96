// The EXIF orientation of image files: a tag in the first directory of a TIFF structure, which is
// the file itself or embedded in it.
#include "apps/exif_orientation.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace velostrix::cli {
namespace {

using namespace std::string_view_literals;

class Tiff {
 public:
  explicit Tiff(std::string_view bytes)
      : bytes_(bytes), is_big_endian_(bytes.substr(0, 4) == "MM\0*"sv) {
    is_valid_ = is_big_endian_ || bytes.substr(0, 4) == "II*\0"sv;
  }

  // The value in the first directory; nothing when it is missing or the structure is cut.
  std::optional<uint32_t> ShortValue(uint32_t tag) const {
    constexpr size_t kEntry = 12;
    if (!is_valid_) return std::nullopt;
    const size_t directory = Number(4, 4);
    const size_t count = Number(directory, 2);
    for (size_t k = 0; k < count; ++k) {
      const size_t entry = directory + 2 + k * kEntry;
      if (entry > bytes_.size()) break;
      if (Number(entry, 2) == tag) return Number(entry + 8, 2);
    }
    return std::nullopt;
  }

 private:
  // 0 beyond the end.
  uint32_t Number(size_t at, size_t size) const {
    if (at > bytes_.size() || bytes_.size() - at < size) return 0;
    uint32_t number = 0;
    for (size_t k = 0; k < size; ++k) {
      const auto byte = static_cast<uint8_t>(bytes_[at + (is_big_endian_ ? k : size - 1 - k)]);
      number = number << 8 | byte;
    }
    return number;
  }

  std::string_view bytes_;
  bool is_big_endian_;
  bool is_valid_;
};

}  // namespace

int ExifOrientation(const std::vector<char>& file) {
  constexpr uint32_t kOrientation = 0x0112;
  const std::string_view bytes(file.data(), file.size());
  std::string_view carrier = bytes;
  for (const auto& [signature, marker] :
       {std::pair("\xff\xd8\xff"sv, "Exif\0\0"sv), std::pair("\x89PNG"sv, "eXIf"sv)}) {
    if (bytes.substr(0, signature.size()) != signature) continue;
    const size_t found = bytes.find(marker);
    carrier =
        found == std::string_view::npos ? std::string_view() : bytes.substr(found + marker.size());
  }
  const uint32_t orientation = Tiff(carrier).ShortValue(kOrientation).value_or(1);
  return orientation >= 1 && orientation <= 8 ? static_cast<int>(orientation) : 1;
}

}  // namespace velostrix::cli
