// Results in the formats of other tools: a mesh, a height in floating point, a normal map.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "apps/output_files.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {

constexpr const char* kSurfaceName = "surface.ply";
constexpr const char* kHeightMapName = "height.tiff";
constexpr const char* kNormalMapName = "normals.png";
inline constexpr std::array kExportNames = {kSurfaceName, kHeightMapName, kNormalMapName};

// Which way green points in a normal map: up, or down the image.
enum class NormalConvention { kOpenGl, kDirectX };
inline constexpr std::array<const char*, 2> kNormalConventionNames = {"opengl", "directx"};

enum class SurfaceColours { kFactor, kGrey };
inline constexpr std::array<const char*, 2> kSurfaceColourNames = {"factor", "grey"};

struct ExportOptions {
  NormalConvention normals = NormalConvention::kOpenGl;
  SurfaceColours colours = SurfaceColours::kFactor;
  int decimate = 1;  // a vertex of the mesh is the mean of a block this wide and high
  cv::Mat kept;      // pixels that the height's scale is taken from are not 0; empty: all
};

// The results that an export needs.
OutputSet NeededFor(const std::string& name, const ExportOptions& options);

// Adds the named exports to the files. All have x to the right, y up and z to the camera.
//
//   height.tiff  CV_32FC1: slope times pixels above the lowest place of the image
//   surface.ply  binary, little-endian: vertices in pixels, z as in height.tiff, with unit normals
//                of the slopes and colours; triangles
//   normals.png  level = 127.5 + 127.5 n of the unit normal n: red x, green y, blue z
//
// Slopes of a calibrated run are those of the part. Slopes of other runs are wrong by one unknown
// factor, and so are these files. Throws Failure when the height's scale cannot be found.
void AddExports(const std::vector<std::string>& names, const ExportOptions& options,
                const Results& results, const Parameters& parameters, OutputFiles& files);

}  // namespace velostrix::cli
