// Results in the formats of other tools: a mesh, a height in floating point, a normal map.
#include "apps/exports.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <opencv2/imgproc.hpp>

#include "apps/commands.h"
#include "apps/measures.h"

namespace velostrix::cli {
namespace {

// CV_32FC3. Channels 0 and 1 are the slopes p and q of p = dz/dx, q = dz/dy, so that
// n = (-p, -q, 1) / |(-p, -q, 1)|; of a calibrated run they are components of the unit normal.
cv::Mat Normals(const Results& results, const Parameters& parameters) {
  const auto [p_scaling, q_scaling] = std::pair(parameters.channel[0], parameters.channel[1]);
  const bool is_unit = parameters.run == Run::kCalibrated;
  cv::Mat normals(results[Output::kChannel0].size(), CV_32FC3);
  for (int i = 0; i < normals.rows; ++i) {
    const auto* const p_row = results[Output::kChannel0].ptr<uint8_t>(i);
    const auto* const q_row = results[Output::kChannel1].ptr<uint8_t>(i);
    auto* const row = normals.ptr<cv::Vec3f>(i);
    for (int j = 0; j < normals.cols; ++j) {
      const double p = (p_row[j] - p_scaling.offset) / p_scaling.gain;
      const double q = (q_row[j] - q_scaling.offset) / q_scaling.gain;
      const double z = is_unit ? std::sqrt(std::max(0.0, 1.0 - p * p - q * q)) : 1.0;
      row[j] = cv::normalize(cv::Vec3d(-p, -q, z));
    }
  }
  return normals;
}

cv::Mat HeightMap(const Results& results, const Parameters& parameters, const cv::Mat& kept) {
  const cv::Mat& height = results[Output::kHeight];
  double most = 0.0;
  cv::minMaxLoc(height, nullptr, &most);
  const std::optional<double> scale = HeightScale(results, parameters, kept);
  if (most > 0.0 && !scale) {
    throw Failure(
        "the height's scale cannot be found for --export: all slopes left the grey "
        "levels; give channel0 and channel1 smaller gains");
  }
  cv::Mat map;
  height.convertTo(map, CV_32F, scale.value_or(0.0));
  return map;
}

cv::Mat NormalMap(const Results& results, const Parameters& parameters,
                  NormalConvention convention) {
  cv::Mat normals = Normals(results, parameters);
  if (convention == NormalConvention::kDirectX) {
    cv::multiply(normals, cv::Scalar(1.0, -1.0, 1.0), normals);
  }
  cv::cvtColor(normals, normals, cv::COLOR_RGB2BGR);
  cv::Mat map;
  normals.convertTo(map, CV_8U, 127.5, 127.5);
  return map;
}

#pragma pack(push, 1)
struct Vertex {
  float position[3];
  float normal[3];
  uint8_t colour[3];
};
struct Triangle {
  uint8_t count;
  int32_t vertices[3];
};
#pragma pack(pop)
static_assert(sizeof(Vertex) == 27 && sizeof(Triangle) == 13, "as the header of the file says");

std::string SurfaceHeader(int64_t vertices, int64_t triangles) {
  return "ply\n"
         "format binary_little_endian 1.0\n"
         "comment x right, y up, z to the camera; x and y in pixels, z in slope x pixels\n"
         "element vertex " +
         std::to_string(vertices) +
         "\n"
         "property float x\nproperty float y\nproperty float z\n"
         "property float nx\nproperty float ny\nproperty float nz\n"
         "property uchar red\nproperty uchar green\nproperty uchar blue\n"
         "element face " +
         std::to_string(triangles) +
         "\n"
         "property list uchar int vertex_indices\n"
         "end_header\n";
}

std::vector<uint8_t> SurfaceFile(const Results& results, const Parameters& parameters,
                                 const ExportOptions& options) {
  constexpr uint8_t kGrey = 160;
  const int block = options.decimate;
  const cv::Size size = results[Output::kHeight].size() / block;
  if (size.width < 2 || size.height < 2) {
    throw Failure("--decimate " + std::to_string(block) +
                  ": leaves no surface of these images; give less");
  }
  const auto reduce = [&](cv::Mat image) {
    if (block == 1) return image;
    const cv::Mat blocks = image({0, 0, size.width * block, size.height * block});
    cv::Mat reduced;
    cv::resize(blocks, reduced, size, 0, 0, cv::INTER_AREA);
    return reduced;
  };
  const cv::Mat height = reduce(HeightMap(results, parameters, options.kept));
  const cv::Mat normals = reduce(Normals(results, parameters));
  cv::Mat grey(size, CV_8UC1, cv::Scalar(kGrey));
  if (options.colours == SurfaceColours::kFactor) grey = reduce(results[Output::kFactor]);

  const int64_t vertices = int64_t{size.width} * size.height;
  const int64_t triangles = 2 * int64_t{size.width - 1} * (size.height - 1);
  const std::string header = SurfaceHeader(vertices, triangles);
  std::vector<uint8_t> file(header.size() + static_cast<size_t>(vertices) * sizeof(Vertex) +
                            static_cast<size_t>(triangles) * sizeof(Triangle));
  uint8_t* to = std::copy(header.begin(), header.end(), file.data());
  const auto put = [&](const auto& element) {
    std::memcpy(to, &element, sizeof element);
    to += sizeof element;
  };
  const auto centre = [&](int k) { return static_cast<float>(k * block + (block - 1) / 2.0); };
  for (int i = 0; i < size.height; ++i) {
    for (int j = 0; j < size.width; ++j) {
      const cv::Vec3f n = cv::normalize(normals.at<cv::Vec3f>(i, j));
      const uint8_t level = grey.at<uint8_t>(i, j);
      put(Vertex{{centre(j), -centre(i), height.at<float>(i, j)},
                 {n[0], n[1], n[2]},
                 {level, level, level}});
    }
  }
  // Counterclockwise, seen from the camera.
  for (int i = 0; i + 1 < size.height; ++i) {
    for (int j = 0; j + 1 < size.width; ++j) {
      const int here = i * size.width + j;
      const int below = here + size.width;
      put(Triangle{3, {here, below, below + 1}});
      put(Triangle{3, {here, below + 1, here + 1}});
    }
  }
  return file;
}

}  // namespace

OutputSet NeededFor(const std::string& name, const ExportOptions& options) {
  OutputSet needed = {Output::kChannel0, Output::kChannel1};
  if (name != kNormalMapName) needed.Add(Output::kHeight);
  const bool has_factor = name == kSurfaceName && options.colours == SurfaceColours::kFactor;
  if (has_factor) needed.Add(Output::kFactor);
  return needed;
}

void AddExports(const std::vector<std::string>& names, const ExportOptions& options,
                const Results& results, const Parameters& parameters, OutputFiles& files) {
  for (const std::string& name : names) {
    if (name == kSurfaceName) files.AddBytes(name, SurfaceFile(results, parameters, options));
    if (name == kHeightMapName) files.AddImage(name, HeightMap(results, parameters, options.kept));
    if (name == kNormalMapName) {
      files.AddImage(name, NormalMap(results, parameters, options.normals));
    }
  }
}

}  // namespace velostrix::cli
