// Runs of the module on the sample scene against its ground truth: the results show the
// relief and not the print, and the calibrated run finds normals and albedo as well as the lamps
// and the grey levels allow.
#include <gtest/gtest.h>

#include <cmath>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "interface/host_tool.h"
#include "orientation/calibrated_lights.h"
#include "scene/sample_scene.h"

namespace velostrix {
namespace {

// A map and its central differences along the rows and across them.
std::vector<cv::Mat> WithDerivatives(const cv::Mat& map) {
  cv::Mat dx;
  cv::Mat dy;
  cv::Sobel(map, dx, CV_32F, 1, 0, 1);
  cv::Sobel(map, dy, CV_32F, 0, 1, 1);
  return {map, dx, dy};
}

struct Truth {
  explicit Truth(const scene::Scene& s) {
    std::vector<cv::Mat> n;
    cv::split(s.normals, n);
    const std::vector<cv::Mat> p = WithDerivatives(n[0] / n[2]);
    const std::vector<cv::Mat> q = WithDerivatives(n[1] / n[2]);
    relief = {p[1], p[2], q[1], q[2]};
    for (const cv::Mat& map : WithDerivatives(s.albedo)) {
      for (const cv::Mat& derivative : WithDerivatives(map)) print.push_back(derivative);
    }
  }

  std::vector<cv::Mat> relief;  // dP/dx, dP/dy, dQ/dx, dQ/dy
  std::vector<cv::Mat> print;   // albedo and its first and second derivatives
};

// The part of an image's variance that a combination of the maps explains, away from the edges,
// where derivatives repeat a neighbour's.
double ExplainedShare(const cv::Mat& image, const std::vector<cv::Mat>& maps) {
  const cv::Rect inside(3, 3, image.cols - 6, image.rows - 6);
  const auto column = [&](const cv::Mat& map) {
    cv::Mat values;
    map(inside).convertTo(values, CV_64F);
    return cv::Mat(values.reshape(1, inside.area()) - cv::mean(values));
  };
  cv::Mat regressors;
  cv::Mat weights;
  for (const cv::Mat& map : maps) regressors.push_back(cv::Mat(column(map).t()));
  regressors = regressors.t();
  const cv::Mat wanted = column(image);
  cv::solve(regressors, wanted, weights, cv::DECOMP_SVD);
  return 1.0 - cv::norm(wanted - regressors * weights, cv::NORM_L2SQR) / wanted.dot(wanted);
}

// Without known lamps a decomposition finds slopes up to a linear map of both (the generalised
// bas-relief ambiguity; Belhumeur, Kriegman, Yuille 1999). So the curvature image of a piece is a
// combination of the four derivatives of the true slopes; how much of it these explain is how much
// relief it shows. The other way round, print shows as albedo or its derivatives.
TEST(RunAccuracy, UncalibratedRunsShowReliefAndNotPrint) {
  const cv::Size size(120, 90);
  const scene::Scene s = scene::Render({size.width, size.height, 5, scene::Lamps::kRandom});
  const Truth truth(s);
  EXPECT_GT(ExplainedShare(s.images[0], truth.print), 0.5) << "the measure finds no print";
  UnCalibrationParam param = EverythingOn(size, s.images.size());
  param.curvature = {128, 25.0};
  HostTool tool = HostTool::Ready(param);
  for (const RunKind kind : {RunKind::kUncalibrated, RunKind::kPartRows, RunKind::kPartCols}) {
    SCOPED_TRACE(kind);
    const cv::Mat curvature = tool.Reconstruct(kind, s.images, size.width)[kCurvature];
    EXPECT_GT(ExplainedShare(curvature, truth.relief), 0.8);
    EXPECT_LT(ExplainedShare(curvature, truth.print), 0.05);
  }
}

// The means that docs/guide.md gives, in degrees and per cent; 3 lamps first. Mostly they
// come from the rounding and the noise of the images, so that little can be added unseen.
TEST(RunAccuracy, TheCalibratedMapsAreAsExactAsTheImages) {
  const struct {
    double noise;
    double normal[6], albedo[6];
  } known[] = {
      {0.0, {0.040, 0.037, 0.045, 0.033, 0.028, 0.025}, {0.29, 0.29, 0.28, 0.28, 0.27, 0.27}},
      {2.0, {0.77, 0.70, 0.86, 0.64, 0.53, 0.48}, {0.98, 0.88, 0.77, 0.71, 0.67, 0.61}}};
  const cv::Size size(320, 240);
  for (const auto& expected : known) {
    for (int image_count = 3; image_count <= 8; ++image_count) {
      SCOPED_TRACE(testing::Message() << image_count << " lamps, noise " << expected.noise);
      const scene::Scene s = scene::Render(
          {size.width, size.height, image_count, scene::Lamps::kRing, 1, expected.noise});
      HostTool host = HostTool::Ready(EverythingOn(size, s.images.size()));
      host.SetImages(s.images);
      const auto light = SolveCalibratedLights(*host.get());
      cv::Mat1f albedos(size), x(size), y(size), z(size);
      for (int i = 0; i < size.height; ++i) light->WriteRow(i, {albedos[i], x[i], y[i], z[i]});
      double angle = 0;
      double albedo_error = 0;
      for (int i = 0; i < size.area(); ++i) {
        const cv::Point at(i % size.width, i / size.width);
        const cv::Vec3d truth = s.normals.at<cv::Vec3f>(at);
        const cv::Vec3d normal(x(at), y(at), z(at));
        const double albedo = double{s.albedo.at<float>(at)};
        angle += std::atan2(cv::norm(normal.cross(truth)), normal.dot(truth));
        albedo_error += std::abs(albedos(at) - albedo) / albedo;
      }
      EXPECT_LT(angle / size.area() * 180.0 / CV_PI, 1.05 * expected.normal[image_count - 3]);
      EXPECT_LT(100.0 * albedo_error / size.area(), 1.05 * expected.albedo[image_count - 3]);
    }
  }
}

}  // namespace
}  // namespace velostrix
