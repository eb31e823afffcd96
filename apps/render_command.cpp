// `velostrix render`: the sample scene as image files, with its ground truth.
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "apps/commands.h"
#include "apps/console.h"
#include "apps/output_files.h"
#include "scene/sample_scene.h"

namespace velostrix::cli {
namespace {

constexpr int kMostImages = 8;

struct RenderOptions {
  std::string out;
  std::string size;
  std::string lamps = "ring";
  bool quiet = false;
  scene::SceneOptions scene;
};

cv::Size ParseSize(const std::string& text) {
  constexpr int kSmallest = 16;
  constexpr int kLargest = 8192;
  const size_t cross = text.find('x');
  cv::Size size;
  if (cross == std::string::npos || !ParseNumber(text.substr(0, cross), size.width) ||
      !ParseNumber(text.substr(cross + 1), size.height) ||
      std::min(size.width, size.height) < kSmallest ||
      std::max(size.width, size.height) > kLargest) {
    throw UsageError("--size " + text + ": expected WIDTHxHEIGHT, each from 16 to 8192");
  }
  return size;
}

OutputPlan PlanOutputs(const RenderOptions& options) {
  OutputPlan plan = {options.out, {}, {}, "truth/scene.json", {}};
  for (int k = 0; k < kMostImages; ++k) {
    (k < options.scene.images ? plan.made : plan.others)
        .push_back("image" + std::to_string(k) + ".png");
  }
  for (const char* name : {"height.tiff", "normals.tiff", "albedo.tiff", "scene.json"}) {
    plan.made.push_back(std::string("truth/") + name);
  }
  return plan;
}

std::string Describe(const RenderOptions& options, const scene::Scene& scene,
                     const OutputPlan& plan) {
  nlohmann::ordered_json lamps = nlohmann::ordered_json::array();
  for (const cv::Vec3f& lamp : scene.lamps) lamps.push_back({lamp[0], lamp[1], lamp[2]});
  const nlohmann::ordered_json description = {
      {"axes", "x to the left, y down, z to the camera"},
      {"lamp_layout", options.lamps},
      {"lamps", lamps},
      {"seed", options.scene.seed},
      {"noise_levels", options.scene.noise},
      {"steepest_slope", options.scene.steepness},
      {"height", "height.tiff: float, pixels"},
      {"normals", "normals.tiff: 3 x float, unit vectors (x, y, z) as OpenCV reads them"},
      {"albedo", "albedo.tiff: float, grey levels"},
      {"outputs", plan.made}};
  return description.dump(2) + '\n';
}

void RenderScene(RenderOptions& options) {
  const cv::Size size = ParseSize(options.size);
  const OutputPlan plan = PlanOutputs(options);
  OutputFiles files(plan);
  Console console(options.quiet);
  options.scene.width = size.width;
  options.scene.height = size.height;
  options.scene.lamps = options.lamps == "ring" ? scene::Lamps::kRing : scene::Lamps::kRandom;

  console.Step("rendering");
  const scene::Scene scene = scene::Render(options.scene);

  console.Step("writing files");
  std::vector<std::pair<std::string, cv::Mat>> images = {{"truth/height.tiff", scene.height},
                                                         {"truth/normals.tiff", scene.normals},
                                                         {"truth/albedo.tiff", scene.albedo}};
  for (size_t k = 0; k < scene.images.size(); ++k)
    images.push_back({plan.made[k], scene.images[k]});
  files.AddImages(images);
  files.AddText("truth/scene.json", Describe(options, scene, plan));
  files.Commit();
  console.Note("wrote " + std::to_string(scene.images.size()) +
               " images and their ground truth to " + options.out);
}

}  // namespace

void AddRenderCommand(CLI::App& app) {
  const auto options = std::make_shared<RenderOptions>();
  scene::SceneOptions& scene = options->scene;
  options->size = std::to_string(scene.width) + "x" + std::to_string(scene.height);
  CLI::App* command = app.add_subcommand(
      "render",
      "Render the sample scene, a part with relief and print, under each lamp: image0.png, "
      "image1.png ..., and its ground truth in the folder truth");
  AddOut(*command, options->out, "Folder to write to; made when it is missing")->type_name("DIR");
  command->add_option("--images", scene.images, "Number of images and lamps")
      ->check(CLI::Range(3, kMostImages))
      ->capture_default_str()
      ->type_name("N");
  command->add_option("--size", options->size, "Size of the images in pixels")
      ->capture_default_str()
      ->type_name("WxH");
  command
      ->add_option(
          "--lamps", options->lamps,
          "ring: the layout that the calibrated run assumes; random: anywhere around the part")
      ->check(CLI::IsMember({"ring", "random"}))
      ->capture_default_str()
      ->type_name("LAYOUT");
  command->add_option("--seed", scene.seed, "Each seed gives different noise and random lamps")
      ->check(CLI::Range(0, std::numeric_limits<int>::max()).description(""))
      ->capture_default_str()
      ->type_name("S");
  command->add_option("--noise", scene.noise, "Noise of the camera in grey levels")
      ->check(CLI::Range(0.0, 50.0))
      ->check(IsNumber())
      ->capture_default_str()
      ->type_name("SIGMA");
  command
      ->add_option("--steepness", scene.steepness,
                   "Steepest slope of the relief; above 0.43 a lamp of the ring may cast shadows")
      ->check(CLI::Range(0.0, 4.0))
      ->check(IsNumber())
      ->capture_default_str()
      ->type_name("SLOPE");
  command->add_flag("--quiet", options->quiet, "Print only errors");
  command->callback([options] { RenderScene(*options); });
}

}  // namespace velostrix::cli
