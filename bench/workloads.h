// What is measured: every stage and every run, once by the library and once plainly.
#pragma once

#include <functional>
#include <memory>
#include <opencv2/core/mat.hpp>
#include <string>
#include <vector>

namespace velostrix::bench {

struct Task {
  cv::Size size;
  int images = 4;
  int band = 64;           // of the partial runs
  int iteration_cap = 50;  // of the height
};

// The images of a task and both implementations' memory, set up for runs over it.
class Session;

struct Workload {
  std::string name;
  double bytes_per_pixel;  // least bytes to move, each plane read or written once; 0 for whole runs
  bool parallel;           // uses all threads
  std::function<void()> product;
  std::function<void()> reference;
};

std::shared_ptr<Session> MakeSession(const Task& task, const std::vector<cv::Mat>& images);

// The stages, one call each.
std::vector<Workload> Stages(const std::shared_ptr<Session>& session);

// The four runs, without and with the height image.
std::vector<Workload> Runs(const std::shared_ptr<Session>& session);

// A whole session of the library, from tool to release, all outputs on, the height if wanted. For
// the peak of its memory.
void RunOnce(const Task& task, const std::vector<cv::Mat>& images, bool height);
std::vector<cv::Mat> SceneImages(const Task& task);

// The scene as a broken station shows it: fewer than three images that differ.
struct BrokenScene {
  const char* name;
  std::vector<cv::Mat> images;
};
std::vector<BrokenScene> BrokenScenes(const Task& task);

// What the tool's own buffers and its intensity matrix take, in bytes a pixel.
double BufferBytesPerPixel(int images);

}  // namespace velostrix::bench
