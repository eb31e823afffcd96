// Runs of the loaded module on the sample scene against its ground truth: the results show the
// relief and not the print, and the calibrated run finds normals and albedo as well as the lamps
// and the grey levels allow.
#include <gtest/gtest.h>

#include <cmath>
#include <opencv2/core.hpp>
#include <sstream>

#include "interface/host_tool.h"
#include "orientation/calibrated_lights.h"
#include "reference/reference_stages.h"
#include "scene/sample_scene.h"
#include "tool/image_input.h"
#include "tool/tool_under_test.h"

namespace velostrix {
namespace {

constexpr double kDegree = CV_PI / 180.0;

void Report(const std::string& name, double value) {
  testing::Test::RecordProperty(name, std::to_string(value));
  std::cout << "  " << name << " " << value << "\n";
}

scene::Scene SampleScene(cv::Size size, int images, scene::Lamps lamps, double noise) {
  scene::SceneOptions options;
  options.width = size.width;
  options.height = size.height;
  options.images = images;
  options.lamps = lamps;
  options.noise = noise;
  return scene::Render(options);
}

// ---- relief and print ---------------------------------------------------------------------------

// Columns of regressors, one row a pixel; or one column that they are to explain.
cv::Mat Column(const cv::Mat& map, const cv::Rect& inside) {
  cv::Mat column;
  map(inside).convertTo(column, CV_64F);
  return column.clone().reshape(1, inside.area());
}

cv::Mat Columns(const std::vector<cv::Mat>& maps, const cv::Rect& inside) {
  std::vector<cv::Mat> columns = {cv::Mat::ones(inside.area(), 1, CV_64F)};
  for (const cv::Mat& map : maps) columns.push_back(Column(map, inside));
  cv::Mat all;
  cv::hconcat(columns, all);
  return all;
}

// Sum of squares of an image that no combination of the maps, and no constant, explains.
double UnexplainedSquares(const cv::Mat& image, const std::vector<cv::Mat>& maps,
                          const cv::Rect& inside) {
  const cv::Mat regressors = Columns(maps, inside);
  const cv::Mat wanted = Column(image, inside);
  cv::Mat weights;
  cv::solve(regressors, wanted, weights, cv::DECOMP_SVD);
  const double residual = cv::norm(wanted - regressors * weights, cv::NORM_L2);
  return residual * residual;
}

// The part of the variance of an image that the maps explain, over what the given ones do already.
double ExplainedShare(const cv::Mat& image, std::vector<cv::Mat> maps,
                      const std::vector<cv::Rect>& pieces, const std::vector<cv::Mat>& given = {}) {
  double before = 0;
  double after = 0;
  maps.insert(maps.end(), given.begin(), given.end());
  for (const cv::Rect& piece : pieces) {
    before += UnexplainedSquares(image, given, piece);
    after += UnexplainedSquares(image, maps, piece);
  }
  return 1.0 - after / before;
}

double Correlation(const cv::Mat& a, const cv::Mat& b, const cv::Rect& inside) {
  const cv::Mat x = Column(a, inside) - cv::mean(Column(a, inside));
  const cv::Mat y = Column(b, inside) - cv::mean(Column(b, inside));
  return x.dot(y) / (cv::norm(x) * cv::norm(y));
}

reference::Frame FrameOf(const cv::Mat& map) {
  reference::Frame frame;
  frame.rows = map.rows;
  frame.cols = frame.row_step = map.cols;
  return frame;
}

struct Truth {
  explicit Truth(const scene::Scene& s)
      : p(s.height.size(), CV_32FC1), q(s.height.size(), CV_32FC1) {
    for (int i = 0; i < p.rows; ++i) {
      for (int j = 0; j < p.cols; ++j) {
        const auto& n = s.normals.at<cv::Vec3f>(i, j);
        p.at<float>(i, j) = n[0] / n[2];
        q.at<float>(i, j) = n[1] / n[2];
      }
    }
    for (const cv::Mat& map : {p, q}) AddDerivatives(map, second);
    AddDerivatives(s.albedo, print);
    for (const cv::Mat& map : std::vector<cv::Mat>(print)) AddDerivatives(map, print);
    print.push_back(s.albedo);
  }

  // Appends the derivatives along the rows and across them.
  static void AddDerivatives(const cv::Mat& map, std::vector<cv::Mat>& out) {
    cv::Mat dx(map.size(), CV_32FC1);
    cv::Mat dy(map.size(), CV_32FC1);
    reference::DeriveSlopeMaps(FrameOf(map), map.ptr<float>(), map.ptr<float>(), false,
                               dx.ptr<float>(), dy.ptr<float>());
    out.push_back(dx);
    out.push_back(dy);
  }

  cv::Mat p, q;                 // slopes
  std::vector<cv::Mat> second;  // dP/dx, dP/dy, dQ/dx, dQ/dy
  std::vector<cv::Mat> print;   // albedo and its first and second derivatives
};

// Heights of slope maps of which one is a true one, or 1, and the other 0.
struct SlopeHeights {
  explicit SlopeHeights(const Truth& truth) {
    const cv::Mat none = cv::Mat::zeros(truth.p.size(), CV_32FC1);
    const cv::Mat one = cv::Mat::ones(truth.p.size(), CV_32FC1);
    for (const cv::Mat& slope : {truth.p, truth.q}) {
      relief.push_back(Integrated(slope, none));
      relief.push_back(Integrated(none, slope));
    }
    planes = {Integrated(one, none), Integrated(none, one)};
  }

  static cv::Mat Integrated(const cv::Mat& p, const cv::Mat& q) {
    constexpr int32_t kNoCap = -1;
    cv::Mat height(p.size(), CV_32FC1);
    reference::IntegrateHeight(FrameOf(p), p.ptr<float>(), q.ptr<float>(), kNoCap,
                               height.ptr<float>());
    return height;
  }

  std::vector<cv::Mat> relief, planes;
};

// The pieces that a run decomposes one by one, without the pixels at their edges, whose derivatives
// reach into the next piece or repeat a neighbour's.
std::vector<cv::Rect> PiecesOf(RunKind kind, cv::Size size, int band) {
  constexpr int kEdge = 3;
  const int height = kind == RunKind::kPartRows ? band : size.height;
  const int width = kind == RunKind::kPartCols ? band : size.width;
  std::vector<cv::Rect> pieces;
  for (int y = 0; y < size.height; y += height) {
    for (int x = 0; x < size.width; x += width) {
      pieces.emplace_back(x + kEdge, y + kEdge, width - 2 * kEdge, height - 2 * kEdge);
    }
  }
  return pieces;
}

// Without known lamps a decomposition finds slopes up to a linear map of both (the generalised
// bas-relief ambiguity; Belhumeur, Kriegman, Yuille 1999): p = a P + b Q + c, q = d P + e Q + f. So
// the curvature image is a combination of the four derivatives of the true slopes, and the height
// image one of the heights of (P, 0), (Q, 0), (0, P), (0, Q) and of two tilted planes; how much of
// an image these explain is how much relief it shows. The other way round, print shows as albedo or
// its derivatives.
TEST(RunAccuracy, UncalibratedRunsShowReliefAndNotPrint) {
  const cv::Size size(120, 90);
  const Truth truth(SampleScene(size, 3, scene::Lamps::kRandom, 1.0));
  const SlopeHeights heights(truth);
  for (const int image_count : {4, 6}) {
    const scene::Scene s = SampleScene(size, image_count, scene::Lamps::kRandom, 1.0);
    const std::vector<cv::Rect> frame = PiecesOf(RunKind::kUncalibrated, size, 0);
    // The measure finds print where there is some.
    EXPECT_GT(ExplainedShare(s.images[0], truth.print, frame), 0.5);

    UnCalibrationParam param = EverythingOn(size, s.images.size());
    param.iteration_cap = -1;
    param.curvature = {128, 25.0};
    HostTool tool = HostTool::Ready(param);
    const struct {
      RunKind kind;
      int band;
      bool one_piece;
    } runs[] = {{RunKind::kUncalibrated, 0, true},
                {RunKind::kPartRows, size.height, true},
                {RunKind::kPartRows, 30, false},
                {RunKind::kPartCols, size.width, true},
                {RunKind::kPartCols, 40, false}};
    for (const auto& run : runs) {
      std::ostringstream name;
      name << run.kind << "_" << run.band << "_images_" << image_count;
      SCOPED_TRACE(name.str());
      const Results r = tool.Reconstruct(run.kind, s.images, run.band);
      const std::vector<cv::Rect> pieces = PiecesOf(run.kind, size, run.band);
      const double curvature = ExplainedShare(r[kCurvature], truth.second, pieces);
      const double curvature_print = ExplainedShare(r[kCurvature], truth.print, pieces);
      Report(name.str() + "_curvature_relief", curvature);
      Report(name.str() + "_curvature_print", curvature_print);
      EXPECT_GT(curvature, 0.8);
      EXPECT_LT(curvature_print, 0.05);
      if (!run.one_piece) continue;  // a height over pieces of different maps is no such sum
      const double height = ExplainedShare(r[kHeight], heights.relief, frame, heights.planes);
      const double height_print = ExplainedShare(r[kHeight], truth.print, frame, heights.planes);
      Report(name.str() + "_height_relief", height);
      Report(name.str() + "_height_print", height_print);
      EXPECT_GT(height, 0.9);
      EXPECT_LT(height_print, 0.05);
    }
  }
}

// With known lamps nothing is left open, not even the sign.
TEST(RunAccuracy, TheCalibratedRunShowsReliefAndNotPrint) {
  const cv::Size size(120, 90);
  const Truth truth(SampleScene(size, 3, scene::Lamps::kRing, 1.0));
  for (int image_count = 3; image_count <= 8; ++image_count) {
    const scene::Scene s = SampleScene(size, image_count, scene::Lamps::kRing, 1.0);
    UnCalibrationParam param = EverythingOn(size, s.images.size());
    param.iteration_cap = -1;
    param.curvature = {128, 120.0};
    const Results r = HostTool::Ready(param).Reconstruct(RunKind::kCalibrated, s.images);
    const std::vector<cv::Rect> frame = PiecesOf(RunKind::kCalibrated, size, 0);
    const std::string name = "images_" + std::to_string(image_count);
    const double height = Correlation(r[kHeight], s.height, frame[0]);
    const double curvature =
        Correlation(r[kCurvature], truth.second[0] + truth.second[3], frame[0]);
    Report(name + "_height_correlation", height);
    Report(name + "_curvature_correlation", curvature);
    EXPECT_GT(height, 0.9);
    EXPECT_GT(curvature, 0.9);
    EXPECT_LT(ExplainedShare(r[kHeight], truth.print, frame), 0.05);
    EXPECT_LT(ExplainedShare(r[kCurvature], truth.print, frame), 0.05);
  }
}

// ---- calibrated accuracy ------------------------------------------------------------------------

// Least-squares vector g of a pixel from its intensities: g = (L^T L)^-1 L^T I.
cv::Mat PseudoInverse(const std::vector<cv::Vec3f>& lamps) {
  cv::Mat l(static_cast<int>(lamps.size()), 3, CV_64F);
  for (int k = 0; k < l.rows; ++k) {
    for (int c = 0; c < 3; ++c) l.at<double>(k, c) = lamps[static_cast<size_t>(k)][c];
  }
  cv::Mat inverse;
  cv::invert(l, inverse, cv::DECOMP_SVD);
  return inverse;
}

// The farthest that g can be from the truth when every intensity is off by half a level at most:
// a convex function of the errors, so that its maximum lies where all are off by the whole half.
double FarthestByRounding(const cv::Mat& pseudo_inverse) {
  double farthest = 0;
  for (int signs = 0; signs < 1 << pseudo_inverse.cols; ++signs) {
    cv::Mat error(pseudo_inverse.cols, 1, CV_64F);
    for (int k = 0; k < error.rows; ++k) error.at<double>(k) = (signs >> k & 1) != 0 ? 0.5 : -0.5;
    farthest = std::max(farthest, cv::norm(cv::Mat(pseudo_inverse * error)));
  }
  // Single precision: some tens of roundings of values up to 255.
  constexpr double kRoundoff = 50 * 255.0 / (1 << 24);
  return farthest + kRoundoff;
}

double AngleBetween(const cv::Vec3d& a, const cv::Vec3d& b) {
  return std::atan2(cv::norm(a.cross(b)), a.dot(b));
}

struct Errors {
  double mean_angle = 0;     // radians
  double squared_angle = 0;  // mean
  double mean_albedo = 0;    // relative
  int beyond = 0;            // pixels whose normal or albedo is off by more than g can be
};

// The maps of the calibrated light stage against the truth, g known to lie within `farthest`.
Errors MeasureMaps(const scene::Scene& s, double farthest) {
  const cv::Size size = s.albedo.size();
  const ToolPtr tool =
      NewTool(FrameParam(size.width, size.height, static_cast<int>(s.images.size())));
  InitialImage(*tool);
  for (const cv::Mat& image : s.images) EXPECT_TRUE(SetImage(*tool, image));
  EXPECT_EQ(SolveCalibratedLights(*tool, tool->factor_map, tool->slope_p, tool->slope_q,
                                  tool->gated_factor_map),
            1);
  Errors errors;
  for (int i = 0; i < size.area(); ++i) {
    const cv::Vec3d truth = s.normals.at<cv::Vec3f>(i / size.width, i % size.width);
    const double albedo = double{s.albedo.at<float>(i / size.width, i % size.width)};
    const cv::Vec3d normal(tool->slope_p[i], tool->slope_q[i], tool->gated_factor_map[i]);
    const double angle = AngleBetween(normal, truth);
    const double albedo_error = std::abs(tool->factor_map[i] - albedo);
    if (albedo_error > farthest || std::sin(angle) * albedo > farthest) ++errors.beyond;
    errors.mean_angle += angle / size.area();
    errors.squared_angle += angle * angle / size.area();
    errors.mean_albedo += albedo_error / albedo / size.area();
  }
  return errors;
}

TEST(RunAccuracy, CalibratedMapsAreOffByTheRoundingOfTheImagesOnly) {
  for (int image_count = 3; image_count <= 8; ++image_count) {
    SCOPED_TRACE(image_count);
    const scene::Scene s = SampleScene(cv::Size(320, 240), image_count, scene::Lamps::kRing, 0.0);
    const Errors errors = MeasureMaps(s, FarthestByRounding(PseudoInverse(s.lamps)));
    const std::string name = "images_" + std::to_string(image_count);
    EXPECT_EQ(errors.beyond, 0) << "pixels";
    Report(name + "_normal_degrees", errors.mean_angle / kDegree);
    Report(name + "_albedo_percent", 100 * errors.mean_albedo);
    EXPECT_LT(errors.mean_angle, 0.5 * kDegree);
    EXPECT_LT(errors.mean_albedo, 0.01);
  }
}

// Noise of variance v in every intensity moves g with the covariance v (L^T L)^-1; what of it lies
// across the normal turns the normal by |across| / albedo.
double ExpectedSquaredAngle(const scene::Scene& s, double variance) {
  const cv::Mat pseudo_inverse = PseudoInverse(s.lamps);
  const cv::Mat covariance = variance * pseudo_inverse * pseudo_inverse.t();
  double sum = 0;
  for (int i = 0; i < s.albedo.rows; ++i) {
    for (int j = 0; j < s.albedo.cols; ++j) {
      const cv::Mat n(cv::Vec3d(s.normals.at<cv::Vec3f>(i, j)));
      const double along = cv::Mat(n.t() * covariance * n).at<double>(0);
      const double albedo = double{s.albedo.at<float>(i, j)};
      sum += (cv::trace(covariance)[0] - along) / (albedo * albedo);
    }
  }
  return sum / static_cast<double>(s.albedo.total());
}

TEST(RunAccuracy, CalibratedMapsCarryTheNoiseOfTheImagesOnly) {
  constexpr double kNoise = 2.0;
  constexpr double kRoundingVariance = 1.0 / 12;
  for (int image_count = 3; image_count <= 8; ++image_count) {
    SCOPED_TRACE(image_count);
    const scene::Scene s =
        SampleScene(cv::Size(240, 180), image_count, scene::Lamps::kRing, kNoise);
    const Errors errors = MeasureMaps(s, 0);
    const double expected = ExpectedSquaredAngle(s, kNoise * kNoise + kRoundingVariance);
    const std::string name = "images_" + std::to_string(image_count);
    Report(name + "_noisy_normal_degrees", errors.mean_angle / kDegree);
    Report(name + "_noisy_albedo_percent", 100 * errors.mean_albedo);
    // 43200 pixels: the mean of their squares is known to about half a percent.
    EXPECT_NEAR(errors.squared_angle / expected, 1.0, 0.03);
  }
}

TEST(RunAccuracy, CalibratedImagesAreOffByTheirLevelsOnly) {
  constexpr double kGain = 127.0;
  constexpr int kOffset = 128;
  // A width of whole blocks, so that every pixel is rounded to nearest; three components are off by
  // half a level each at most.
  const cv::Size size(320, 240);
  const double farthest_by_levels = std::sqrt(3.0) * 0.5 / kGain;
  for (int image_count = 3; image_count <= 8; ++image_count) {
    SCOPED_TRACE(image_count);
    const scene::Scene s = SampleScene(size, image_count, scene::Lamps::kRing, 0.0);
    UnCalibrationParam param = EverythingOn(size, s.images.size());
    param.factor_gain = 1.0;
    for (OutputScaling& channel : param.channel) channel = {kOffset, kGain};
    const Results r = HostTool::Ready(param).Reconstruct(RunKind::kCalibrated, s.images);

    double dark = 0;
    double bright = 0;
    cv::minMaxLoc(s.albedo, &dark, &bright);
    const double farthest = FarthestByRounding(PseudoInverse(s.lamps));
    double mean_angle = 0;
    double mean_albedo = 0;
    int beyond = 0;
    for (int i = 0; i < size.area(); ++i) {
      const cv::Point at(i % size.width, i / size.width);
      const cv::Vec3d truth = s.normals.at<cv::Vec3f>(at);
      const double albedo = double{s.albedo.at<float>(at)};
      const cv::Vec3d levels = r[kNormal].at<cv::Vec3b>(at);
      const double angle = AngleBetween((levels - cv::Vec3d::all(kOffset)) / kGain, truth);
      const double found = dark + (bright - dark) * r[kFactor].at<uint8_t>(at) / 255.0;
      const double albedo_error = std::abs(found - albedo);
      // The factor image spreads what was found between the darkest and the brightest that was
      // found, each as far off as any.
      const double most_angle = std::asin(farthest / albedo) + std::asin(farthest_by_levels);
      const double most_albedo = 2 * farthest + (bright - dark) * 0.5 / 255.0;
      if (angle > most_angle || albedo_error > most_albedo) ++beyond;
      mean_angle += angle / size.area();
      mean_albedo += albedo_error / albedo / size.area();
    }
    EXPECT_EQ(beyond, 0) << "pixels";
    const std::string name = "images_" + std::to_string(image_count);
    Report(name + "_normal_image_degrees", mean_angle / kDegree);
    Report(name + "_factor_image_percent", 100 * mean_albedo);
    EXPECT_LT(mean_angle, 0.5 * kDegree);
    EXPECT_LT(mean_albedo, 0.01);
  }
}

}  // namespace
}  // namespace velostrix
