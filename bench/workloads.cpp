// What is measured: every stage and every run, once by the library and once plainly.
#include "workloads.h"

#include <cmath>
#include <opencv2/imgproc.hpp>
#include <stdexcept>

#include "maps/byte_maps.h"
#include "maps/derivative_maps.h"
#include "maps/height.h"
#include "orientation/calibrated_lights.h"
#include "orientation/factorize_intensities.h"
#include "pipeline/run.h"
#include "reference/reference_runs.h"
#include "tool/buffers.h"
#include "tool/equalisation.h"
#include "tool/image_input.h"
#include "tool/parameters.h"
#include "tool/uncalibration_tool.h"

namespace velostrix::bench {
namespace {

UnCalibrationParam Parameters(const Task& task, bool height) {
  UnCalibrationParam param = {};
  param.image_count = task.images;
  param.width = param.row_step = task.size.width;
  param.height = task.size.height;
  for (int32_t& output : param.output_enable) output = 1;
  param.output_enable[VELOSTRIX_OUTPUT_HEIGHT] = height ? 1 : 0;
  param.scale = 1.0;
  param.iteration_cap = task.iteration_cap;
  param.factor_gain = 1.0;
  param.curvature = {128, 100.0};
  param.magnitude = {0, 100.0};
  for (OutputScaling& channel : param.channel) channel = {128, 100.0};
  return param;
}

struct Results {
  cv::Mat factor, curvature, magnitude, channel[3], normal, height;

  ResultImages Places() {
    return {&factor, &curvature, &magnitude, {&channel[0], &channel[1], &channel[2]},
            &normal, &height};
  }
};

void Check(bool done) {
  if (!done) throw std::runtime_error("a measured call was refused");
}

// Has a light stage write whole maps.
void WriteMaps(const UnCalibrationTool& tool, const std::unique_ptr<LightStage>& stage) {
  for (int64_t i = 0; i < tool.rows; ++i) {
    const int64_t at = i * tool.row_step;
    stage->WriteRow(i, {tool.factor_map + at, tool.slope_p + at, tool.slope_q + at,
                        tool.gated_factor_map + at});
  }
}

// Calls work(row of a float map, row of the output) for every row.
template <typename T, typename Work>
void ForEachRow(const UnCalibrationTool& tool, const float* map, T* out, const Work& work) {
  for (int64_t i = 0; i < tool.rows; ++i) work(map + i * tool.row_step, out + i * tool.row_step);
}

Range RangeOf(const UnCalibrationTool& tool, const float* map) {
  Range range;
  for (int64_t i = 0; i < tool.rows; ++i) MinMaxOfMap(map + i * tool.row_step, tool.cols, range);
  return range;
}

SlopeRows SlopeRowsOf(const UnCalibrationTool& tool) {
  return {{tool.slope_p, tool.row_step, tool.rows},
          {tool.slope_q, tool.row_step, tool.rows},
          tool.rows,
          tool.cols};
}

}  // namespace

class Session {
 public:
  Session(const Task& wanted, const std::vector<cv::Mat>& scene)
      : task(wanted), images(scene), workspace(ReferenceFrame(task.size)) {
    SetParam(tool, Parameters(task, true));
    InitialImage(tool);
    SetImages();
    frame = ReferenceFrame(task.size);
    frame.stack = tool.image_stack;
    frame.image_count = task.images;
    // SlopeRows for the stages that come after a light stage.
    WriteMaps(tool, FactorizeIntensities(tool));
  }
  ~Session() { ReleaseImage(tool); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void SetImages() {
    ClearImage(tool);
    for (const cv::Mat& image : images) Check(SetImage(tool, image));
  }

  reference::WorkingMaps reference_maps() {
    return {workspace.factor_map.data(), workspace.slope_p.data(), workspace.slope_q.data(),
            workspace.gated_factor_map.data()};
  }

  const Task task;
  UnCalibrationTool tool;
  Results results;
  std::vector<cv::Mat> images;
  reference::Frame frame;
  reference::Workspace workspace;
  reference::RunResults reference_results;

 private:
  static reference::Frame ReferenceFrame(cv::Size size) {
    reference::Frame frame;
    frame.rows = size.height;
    frame.cols = frame.row_step = size.width;
    frame.plane_size = frame.rows * frame.cols;
    return frame;
  }
};

// Smooth relief under lamps of different strength and direction, printed squares, some noise: no
// two images are alike, and none is the sum of others.
std::vector<cv::Mat> SceneImages(const Task& task) {
  cv::RNG noise(1);
  std::vector<cv::Mat> scene;
  for (int k = 0; k < task.images; ++k) {
    const double azimuth = 2 * CV_PI * k / task.images + 0.3 * k;
    cv::Mat image(task.size, CV_8UC1);
    for (int i = 0; i < task.size.height; ++i) {
      auto* row = image.ptr<uint8_t>(i);
      const double slope_y = 0.3 * std::sin(0.06 * i);
      const double wave = std::cos(0.042 * i);
      for (int j = 0; j < task.size.width; ++j) {
        const double slope_x = 0.3 * std::sin(0.05 * j) * wave;
        const double print = ((i / 40 + j / 60) & 1) != 0 ? 1.0 : 0.7;
        const double shading = 1 + std::cos(azimuth) * slope_x + std::sin(azimuth) * slope_y;
        row[j] = cv::saturate_cast<uint8_t>((90 + 10 * k) * shading * print +
                                            static_cast<double>(noise.next() & 3U));
      }
    }
    scene.push_back(image);
  }
  return scene;
}

std::vector<BrokenScene> BrokenScenes(const Task& task) {
  const std::vector<cv::Mat> scene = SceneImages(task);
  cv::Mat black = cv::Mat::zeros(task.size, CV_8UC1);
  const auto shown = [&](auto image_of) {
    std::vector<cv::Mat> images(scene.size());
    for (size_t k = 0; k < scene.size(); ++k) images[k] = image_of(k);
    return images;
  };
  return {{"one image", shown([&](size_t) { return scene[0]; })},
          {"all but two black", shown([&](size_t k) { return k < 2 ? scene[k] : black; })},
          {"all black", shown([&](size_t) { return black; })},
          {"two in turn", shown([&](size_t k) { return scene[k % 2]; })}};
}

std::shared_ptr<Session> MakeSession(const Task& task, const std::vector<cv::Mat>& images) {
  return std::make_shared<Session>(task, images);
}

std::vector<Workload> Stages(const std::shared_ptr<Session>& session) {
  Session* s = session.get();
  UnCalibrationTool& tool = s->tool;
  reference::Workspace& plain = s->workspace;
  const double n = static_cast<double>(tool.image_count);
  std::vector<Workload> stages;
  const auto add = [&](const char* name, double bytes, std::function<void()> product,
                       std::function<void()> reference, bool parallel = false) {
    stages.push_back({name, bytes, parallel, [session, run = std::move(product)] { run(); },
                      [session, run = std::move(reference)] { run(); }});
  };

  add(
      "set images", 2 * n, [s] { s->SetImages(); },
      [s] {
        std::vector<uint8_t> stack(static_cast<size_t>(s->frame.plane_size * s->frame.image_count));
        uint8_t* out = stack.data();
        for (const cv::Mat& image : s->images) {
          for (int i = 0; i < image.rows; ++i) {
            for (int j = 0; j < image.cols; ++j) *out++ = image.at<uint8_t>(i, j);
          }
        }
      });
  add(
      "equalise one image", 3,
      [s, out = cv::Mat(), levels = std::vector<double>()]() mutable {
        Check(EqualiseBrightness(levels, s->images[0], out, -1.0));
      },
      [s, levels = std::vector<double>()]() mutable {
        reference::EqualiseBrightness(levels, s->images[0], -1.0);
      });
  // Bytes are read twice, for the products and for the maps.
  add(
      "factorise full frame", 2 * n + 4 * n + 16,
      [&tool] { WriteMaps(tool, FactorizeIntensities(tool)); },
      [s] {
        reference::FactorizeIntensities(s->frame, s->reference_maps(),
                                        s->workspace.intensity_matrix);
      });
  // Bytes are read three times, as the factor map is mirrored about the middle of its range.
  add(
      "factorise part rows", 3 * n + 16,
      [s, &tool] {
        const auto stage = FactorizeIntensitiesPartRows(tool, s->task.band);
        stage->FactorRange(tool.factor_map);
        WriteMaps(tool, stage);
      },
      [s] {
        reference::FactorizeIntensitiesPartRows(s->frame, s->reference_maps(), s->task.band);
      });
  add(
      "factorise part cols", 3 * n + 16,
      [s, &tool] {
        const auto stage = FactorizeIntensitiesPartCols(tool, s->task.band);
        stage->FactorRange(tool.factor_map);
        WriteMaps(tool, stage);
      },
      [s] {
        reference::FactorizeIntensitiesPartCols(s->frame, s->reference_maps(), s->task.band);
      });
  add(
      "calibrated solve", n + 16, [&tool] { WriteMaps(tool, SolveCalibratedLights(tool)); },
      [s] { reference::SolveCalibratedLights(s->frame, s->reference_maps()); });
  add(
      "map to byte, linear", 5,
      [&tool] {
        ForEachRow(tool, tool.slope_p, tool.channel_plane[0], [&](const float* row, uint8_t* out) {
          MapToByteLinear(row, tool.cols, 100.0, 128, out);
        });
      },
      [s, &tool, &plain] {
        reference::MapToByteLinear(s->frame, tool.slope_p, plain.channel_plane[0].data(), 100.0,
                                   128);
      });
  add(
      "map to byte, absolute", 5,
      [&tool] {
        ForEachRow(tool, tool.slope_p, tool.magnitude_plane, [&](const float* row, uint8_t* out) {
          MapToByteAbsLinear(row, tool.cols, 100.0, 0, out);
        });
      },
      [s, &tool, &plain] {
        reference::MapToByteAbsLinear(s->frame, tool.slope_p, plain.magnitude_plane.data(), 100.0,
                                      0);
      });
  add(
      "map to byte, normalised", 9,
      [&tool] {
        const Range range = RangeOf(tool, tool.factor_map);
        ForEachRow(tool, tool.factor_map, tool.factor_plane, [&](const float* row, uint8_t* out) {
          MapToByteNormalized(row, tool.cols, tool.row_step, range, 1.0, out);
        });
      },
      [s, &tool, &plain] {
        reference::MapToByteNormalized(s->frame, tool.factor_map, plain.factor_plane.data(), 1.0);
      });
  add(
      "map to word", 10,
      [&tool] {
        const Range range = RangeOf(tool, tool.slope_p);
        ForEachRow(tool, tool.slope_p, tool.height_plane, [&](const float* row, uint16_t* out) {
          MapToWordNormalized(row, tool.cols, tool.row_step, range, out);
        });
      },
      [s, &tool, &plain] {
        reference::MapToWordNormalized(s->frame, tool.slope_p, plain.height_plane.data());
      });
  add(
      "sum bytes", 3,
      [&tool] {
        for (int64_t at = 0; at < tool.plane_size; at += tool.row_step) {
          SumBytes(tool.factor_plane + at, tool.magnitude_plane + at, tool.cols, -128,
                   tool.curvature_plane + at);
        }
      },
      [s, &tool, &plain] {
        reference::SumBytes(s->frame, tool.factor_plane, tool.magnitude_plane,
                            plain.curvature_plane.data(), -128);
      });
  add(
      "derivative maps", 16,
      [&tool] {
        for (int64_t i = 0; i < tool.rows; ++i) {
          const int64_t at = i * tool.row_step;
          DeriveSlopeMaps(SlopeRowsOf(tool), i, false, tool.deriv_p + at, tool.deriv_q + at);
        }
      },
      [s, &tool, &plain] {
        reference::DeriveSlopeMaps(s->frame, tool.slope_p, tool.slope_q, false,
                                   plain.deriv_p.data(), plain.deriv_q.data());
      });
  add(
      "slope divergence", 12,
      [&tool] {
        for (int64_t i = 0; i < tool.rows; ++i) {
          SlopeDivergence(SlopeRowsOf(tool), i, tool.deriv_p + i * tool.row_step);
        }
      },
      [s, &tool, &plain] {
        reference::SlopeDivergence(s->frame, tool.slope_p, tool.slope_q, plain.deriv_p.data());
      });
  // The start: slopes and r, then p; an iteration: r and p both ways, z every other time.
  add(
      "height", 24 + 20.0 * s->task.iteration_cap,
      [&tool] { IntegrateHeight(tool, tool.slope_p, tool.slope_q, &tool.height_map); },
      [s, &tool, &plain] {
        reference::IntegrateHeight(s->frame, tool.slope_p, tool.slope_q, s->task.iteration_cap,
                                   plain.height_map.data());
      },
      true);
  return stages;
}

std::vector<Workload> Runs(const std::shared_ptr<Session>& session) {
  struct Variant {
    const char* name;
    reference::LightStage stage;
    RunKind kind;
  };
  constexpr Variant kVariants[] = {
      {"uncali", reference::LightStage::kUncalibrated, RunKind::kUncalibrated},
      {"cali", reference::LightStage::kCalibrated, RunKind::kCalibrated},
      {"partrows", reference::LightStage::kPartRows, RunKind::kPartRows},
      {"partcols", reference::LightStage::kPartCols, RunKind::kPartCols},
  };
  std::vector<Workload> runs;
  for (const bool height : {false, true}) {
    for (const Variant& variant : kVariants) {
      const UnCalibrationParam param = Parameters(session->task, height);
      const auto product = [session, param, kind = variant.kind] {
        SetParam(session->tool, param);
        Check(Run(session->tool, session->results.Places(), kind, session->task.band) == 1);
      };
      const auto reference = [session, param, stage = variant.stage] {
        reference::RunRequest request;
        request.light_stage = stage;
        request.frame = session->frame;
        request.param = param;
        request.band = session->task.band;
        reference::Run(request, session->workspace, session->reference_results);
      };
      runs.push_back({std::string(variant.name) + (height ? " with height" : ""), 0, height,
                      product, reference});
    }
  }
  return runs;
}

void RunOnce(const Task& task, const std::vector<cv::Mat>& images, bool height) {
  UnCalibrationTool tool;
  SetParam(tool, Parameters(task, height));
  InitialImage(tool);
  for (const cv::Mat& image : images) Check(SetImage(tool, image));
  Results results;
  Check(Run(tool, results.Places(), RunKind::kUncalibrated) == 1);
  ReleaseImage(tool);
}

double BufferBytesPerPixel(int images) {
  const double stack_and_spare_stack = 5.0 * images;
  const double intensity_matrix = 4.0 * images;
  constexpr double kMapsAndPlanes = 10 * 4 + 10 + 2;
  return stack_and_spare_stack + intensity_matrix + kMapsAndPlanes;
}

}  // namespace velostrix::bench
