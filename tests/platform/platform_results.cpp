// Whether two builds of the library, for two processors, give the same bytes.
//
//   platform_results write FILE     runs a table of frames and keeps every result image
//   platform_results compare A B    says per kind of result in how much two files differ;
//                                   exit code 1 if the library's own results do
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <sstream>

#include "interface/host_tool.h"

namespace velostrix {
namespace {

// Results that OpenCV's functions contribute to are counted apart: its vector code and its rounding
// are other ones on other processors.
constexpr const char* kOwn = "own";
constexpr const char* kBlurred = "blurred";
constexpr const char* kResized = "resized";

// All of a block's tails; the last sizes below and the first from a thousand pixels on, where the
// decomposition changes; pieces of several kinds; heights in several bands.
constexpr int kSizes[][2] = {{3, 2},   {4, 3},   {5, 9},   {8, 2},    {9, 4},   {11, 11},
                             {16, 16}, {17, 5},  {23, 3},  {33, 31},  {32, 32}, {41, 25},
                             {64, 40}, {73, 57}, {97, 66}, {131, 77}, {24, 90}, {220, 19}};

using Random = std::mt19937;

int Draw(Random& random, int least, int most) {
  return least + static_cast<int>(random() % static_cast<unsigned>(most - least + 1));
}

// Shading of two crossing waves, in whole numbers: what a library rounds is no input.
std::vector<cv::Mat> Images(cv::Size size, int count, Random& random) {
  std::vector<cv::Mat> images;
  const int noise = random() % 4 == 0 ? 256 : Draw(random, 1, 9);
  for (int k = 0; k < count; ++k) {
    if (k > 0 && random() % 40 == 0) {  // on the discontinuity of every pivot
      images.push_back(images[0].clone());
      continue;
    }
    const int along = Draw(random, -3, 3);
    const int across = Draw(random, -3, 3);
    const int level = Draw(random, 40, 210);
    cv::Mat image(size, CV_8UC1);
    for (int i = 0; i < size.height; ++i) {
      for (int j = 0; j < size.width; ++j) {
        const int wave = along * (std::abs((3 * j + i) % 46 - 23) - 11) +
                         across * (std::abs((2 * i + 62 - j % 31) % 34 - 17) - 8);
        image.at<uint8_t>(i, j) =
            cv::saturate_cast<uint8_t>(level + wave + Draw(random, -noise / 2, noise / 2));
      }
    }
    images.push_back(image);
  }
  return images;
}

void Vary(UnCalibrationParam& param, int variant, Random& random) {
  param.difference_mode = Draw(random, 0, 1);
  param.row_step = param.width + (variant % 2 == 0 ? 0 : Draw(random, 1, 9));
  param.iteration_cap = Draw(random, 0, 40);
  param.equalise_on = random() % 5 == 0 ? 1 : 0;
  for (OutputScaling* scaling : {&param.curvature, &param.magnitude, &param.channel[0],
                                 &param.channel[1], &param.channel[2]}) {
    if (random() % 6 == 0) *scaling = {Draw(random, -100000, 100000), 1e12};  // beyond any integer
  }
  if (variant == 2) param.blur_radius = Draw(random, 1, 4);
  if (variant == 3) param.scale = Draw(random, 30, 98) / 100.0;
}

void Write(std::ostream& file) {
  Random random(1);
  constexpr int kVariants = 4;
  for (const auto& [width, height] : kSizes) {
    for (int count = 3; count <= 8; ++count) {
      for (const RunKind kind : kAllRuns) {
        for (int variant = 0; variant < kVariants; ++variant) {
          const cv::Size size(width, height);
          UnCalibrationParam param = EverythingOn(size, static_cast<size_t>(count));
          Vary(param, variant, random);
          HostTool tool(param);
          if (variant == 3 && !tool.SetRegion({0, 0, width, height})) continue;
          tool.InitialImage();
          const std::vector<cv::Mat> images = Images(size, count, random);
          const int band = Draw(random, 5, 40);
          const Results results = tool.Reconstruct(kind, images, band);
          for (size_t r = 0; r < kResultCount; ++r) {
            const bool blurs = variant == 2 && (r == kCurvature || r == kMagnitude);
            const cv::Mat& image = results[r];
            file << (variant == 3 ? kResized
                     : blurs      ? kBlurred
                                  : kOwn)
                 << ' ' << kind << ' ' << size << ' ' << count << ' ' << variant << ' '
                 << kResultNames[r] << ' ' << image.rows << ' ' << image.cols << ' ' << image.type()
                 << '\n';
            file.write(reinterpret_cast<const char*>(image.data),
                       static_cast<std::streamsize>(image.total() * image.elemSize()));
          }
        }
      }
    }
  }
}

bool ReadResult(std::istream& file, std::string& name, cv::Mat& image) {
  if (!std::getline(file, name)) return false;
  std::istringstream words(name);
  std::vector<std::string> word{std::istream_iterator<std::string>(words), {}};
  const size_t last = word.size() - 1;
  image.create(std::stoi(word[last - 2]), std::stoi(word[last - 1]), std::stoi(word[last]));
  file.read(reinterpret_cast<char*>(image.data),
            static_cast<std::streamsize>(image.total() * image.elemSize()));
  return true;
}

struct Difference {
  int64_t images = 0, values = 0;
  int64_t differing_images = 0, differing_values = 0;
  double largest = 0;
};

int Compare(std::istream& a, std::istream& b) {
  std::map<std::string, Difference> kinds;
  std::string name_a, name_b;
  cv::Mat image_a, image_b;
  bool in_step = true;
  while (in_step && ReadResult(a, name_a, image_a)) {
    in_step = ReadResult(b, name_b, image_b) && name_a == name_b;
    if (!in_step) break;
    Difference& kind = kinds[name_a.substr(0, name_a.find(' '))];
    const int64_t differing = cv::countNonZero(image_a.reshape(1) != image_b.reshape(1));
    ++kind.images;
    kind.values += static_cast<int64_t>(image_a.total()) * image_a.channels();
    if (differing == 0) continue;
    if (++kind.differing_images <= 10) std::cout << "differs: " << name_a << '\n';
    kind.differing_values += differing;
    kind.largest = std::max(kind.largest, cv::norm(image_a, image_b, cv::NORM_INF));
  }
  for (const auto& [name, kind] : kinds) {
    std::cout << name << ": " << kind.differing_images << " of " << kind.images
              << " images differ, in " << kind.differing_values << " of " << kind.values
              << " values, by up to " << kind.largest << '\n';
  }
  if (!in_step || b.peek() != EOF) std::cout << "the files hold other results: " << name_a << '\n';
  return in_step && b.peek() == EOF && kinds[kOwn].images > 0 && kinds[kOwn].differing_images == 0
             ? 0
             : 1;
}

}  // namespace
}  // namespace velostrix

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv, argv + argc);
  if (words.size() == 3 && words[1] == "write") {
    std::ofstream file(words[2], std::ios::binary);
    velostrix::Write(file);
    return file.flush() ? 0 : 2;
  }
  if (words.size() == 4 && words[1] == "compare") {
    std::ifstream a(words[2], std::ios::binary), b(words[3], std::ios::binary);
    return velostrix::Compare(a, b);
  }
  std::cerr << "usage: platform_results write FILE | compare FILE FILE\n";
  return 2;
}
