// What is measured: every stage and every run, once by the library and once plainly.
#pragma once

#include <functional>
#include <memory>
#include <opencv2/core/mat.hpp>
#include <string>
#include <vector>

namespace velostrix::bench {

constexpr int kBand = 64;
constexpr int kIterationCap = 50;

// The images of a scene and both implementations' memory, set up for runs over it.
class Session;

struct Workload {
  std::string name;
  double bytes_per_pixel;  // that it must move at least: each plane read or written once; 0 for
                           // whole runs
  bool parallel;           // uses all threads
  std::function<void()> product;
  std::function<void()> reference;
};

std::shared_ptr<Session> MakeSession(cv::Size size, int images);

// The stages, one call each, and one iteration of the height solve.
std::vector<Workload> Stages(const std::shared_ptr<Session>& session);

// The four runs, without and with the height image.
std::vector<Workload> Runs(const std::shared_ptr<Session>& session);

// A whole session of the library, from tool to release, all outputs on. For the peak of its memory.
void RunOnce(const std::vector<cv::Mat>& images);
std::vector<cv::Mat> SceneImages(cv::Size size, int images);

// What the tool's own buffers and its intensity matrix take, in bytes a pixel.
double BufferBytesPerPixel(int images);

}  // namespace velostrix::bench
