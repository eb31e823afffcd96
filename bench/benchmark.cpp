// velostrix_bench: prints how fast every stage and run is, against the straightforward
// implementation and against the memory bandwidth, both measured in the same process.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <opencv2/core/utility.hpp>
#include <string>
#include <thread>
#include <vector>

#include "measurement.h"
#include "upright_scenes.h"
#include "workloads.h"

namespace {

using nlohmann::json;
using velostrix::bench::BrokenScene;
using velostrix::bench::Comparison;
using velostrix::bench::Task;
using velostrix::bench::Workload;

struct Options {
  std::vector<std::string> sizes = {"640x480", "1280x1024", "2448x2048", "4096x3072"};
  std::vector<int> images = {3, 4, 8};
  int band = Task().band;
  int iteration_cap = Task().iteration_cap;
  int repeats = 5;
  std::string json_file;
  int upright_scenes = 0;
};

cv::Size ParseSize(const std::string& text) {
  cv::Size size;
  char rest = 0;
  if (std::sscanf(text.c_str(), "%dx%d%c", &size.width, &size.height, &rest) != 2 ||
      size.width < 16 || size.height < 16) {
    throw CLI::ValidationError("--size", "'" + text + "' is not WIDTHxHEIGHT of at least 16x16");
  }
  return size;
}

std::string ProcessorName() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  for (std::string line; std::getline(cpuinfo, line);) {
    if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
  }
  return "unknown processor";
}

double PeakOfRun(const Task& task, const std::vector<cv::Mat>& scene, bool height) {
  return static_cast<double>(
      velostrix::bench::PeakMemory([&] { velostrix::bench::RunOnce(task, scene, height); }));
}

json MeasurePeakMemory(const Task& task) {
  const auto scene = velostrix::bench::SceneImages(task);
  const double with_height = PeakOfRun(task, scene, true);
  const double flat = PeakOfRun(task, scene, false);
  const double buffers = velostrix::bench::BufferBytesPerPixel(task.images) * task.size.area();
  std::printf(
      "%5dx%-5d N=%d  buffers %7.1f MB; peak of a run with height %7.1f MB (%.2f), without %7.1f "
      "MB "
      "(%.2f)\n",
      task.size.width, task.size.height, task.images, buffers / 1e6, with_height / 1e6,
      with_height / buffers, flat / 1e6, flat / buffers);
  for (const BrokenScene& broken : velostrix::bench::BrokenScenes(task)) {
    std::printf("  %-26s %.2fx\n", broken.name, PeakOfRun(task, broken.images, true) / with_height);
  }
  return {
      {"width", task.size.width},  {"height", task.size.height},        {"images", task.images},
      {"peak_bytes", with_height}, {"peak_without_height_bytes", flat}, {"buffer_bytes", buffers}};
}

json MeasureWorkload(const Workload& workload, cv::Size size, int repeats, double bandwidth) {
  const Comparison time = velostrix::bench::Compare(workload.product, workload.reference, repeats);
  const double megapixels = size.area() / 1e6;
  const double speed = workload.bytes_per_pixel * size.area() / time.product_ms / 1e6;
  std::printf("  %-26s %9.2f ms %7.2f ms/MP %10.1f ms %7.1fx", workload.name.c_str(),
              time.product_ms, time.product_ms / megapixels, time.reference_ms, time.Ratio());
  if (workload.bytes_per_pixel > 0) {
    std::printf(" %7.0f B %6.1f GB/s %4.0f %%", workload.bytes_per_pixel, speed,
                100 * speed / bandwidth);
  }
  std::printf("\n");
  std::fflush(stdout);
  return {{"name", workload.name},
          {"ms", time.product_ms},
          {"reference_ms", time.reference_ms},
          {"ratio", time.Ratio()},
          {"bytes_per_pixel", workload.bytes_per_pixel},
          {"bandwidth_fraction", speed / bandwidth}};
}

// The uncalibrated runs without height over broken scenes, in turn with the ordinary one.
json MeasureBrokenScenes(const Task& task, const std::vector<Workload>& runs, int repeats) {
  json rows = json::array();
  for (const BrokenScene& broken : velostrix::bench::BrokenScenes(task)) {
    const auto session = velostrix::bench::MakeSession(task, broken.images);
    const std::vector<Workload> broken_runs = velostrix::bench::Runs(session);
    for (size_t i = 0; i < runs.size(); ++i) {
      if (runs[i].parallel || runs[i].name == "cali") continue;
      const Comparison time =
          velostrix::bench::Compare(broken_runs[i].product, runs[i].product, repeats);
      const std::string name = runs[i].name + ", " + broken.name;
      std::printf("  %-26s %9.2f ms, ordinary %9.2f ms, %5.2fx\n", name.c_str(), time.product_ms,
                  time.reference_ms, time.product_ms / time.reference_ms);
      rows.push_back({{"name", name}, {"ms", time.product_ms}, {"ordinary_ms", time.reference_ms}});
    }
  }
  return rows;
}

json MeasureTask(const Task& task, int repeats) {
  const cv::Size size = task.size;
  const double one = velostrix::bench::TriadBandwidth(size.area(), false);
  const double all = velostrix::bench::TriadBandwidth(size.area(), true);
  std::printf(
      "\n%dx%d, N = %d, band %d, at most %d iterations; triad %.1f GB/s on one thread, %.1f GB/s "
      "on all\n",
      size.width, size.height, task.images, task.band, task.iteration_cap, one, all);
  std::printf("  %-26s %12s %13s %13s %8s %9s %11s %6s\n", "", "library", "", "plain", "ratio",
              "per pixel", "bandwidth", "of triad");
  const auto session = velostrix::bench::MakeSession(task, velostrix::bench::SceneImages(task));
  const std::vector<Workload> runs = velostrix::bench::Runs(session);
  json rows = json::array();
  for (const auto& list : {velostrix::bench::Stages(session), runs}) {
    for (const Workload& workload : list) {
      rows.push_back(MeasureWorkload(workload, size, repeats, workload.parallel ? all : one));
    }
  }
  const json broken_rows = MeasureBrokenScenes(task, runs, repeats);
  return {{"width", size.width},
          {"height", size.height},
          {"images", task.images},
          {"band", task.band},
          {"iteration_cap", task.iteration_cap},
          {"triad_gbps", one},
          {"triad_all_gbps", all},
          {"rows", rows},
          {"broken_rows", broken_rows}};
}

// The height on idle and on busy cores, by one thread and by all.
json MeasureBusyHeight(const Task& task, int repeats) {
  const auto session = velostrix::bench::MakeSession(task, velostrix::bench::SceneImages(task));
  const Workload run = velostrix::bench::Runs(session).back();  // with height
  constexpr int kAll = -1;
  const auto measure = [&](int threads) {
    cv::setNumThreads(threads);
    const double ms = velostrix::bench::MedianMs(run.product, repeats);
    cv::setNumThreads(kAll);
    return ms;
  };
  json row = {{"width", task.size.width}, {"height", task.size.height}};
  row["idle_one_thread_ms"] = measure(1);
  row["idle_ms"] = measure(kAll);
  {
    const velostrix::bench::BusyCores busy;
    row["busy_one_thread_ms"] = measure(1);
    row["busy_ms"] = measure(kAll);
  }
  std::printf(
      "%5dx%-5d run with height, median: idle %7.1f ms, one thread %7.1f ms; "
      "busy %7.1f ms, one thread %7.1f ms\n",
      task.size.width, task.size.height, row["idle_ms"].get<double>(),
      row["idle_one_thread_ms"].get<double>(), row["busy_ms"].get<double>(),
      row["busy_one_thread_ms"].get<double>());
  return row;
}

void PrintUprightCounts(int scenes) {
  const velostrix::bench::UprightCounts counts = velostrix::bench::CountUpright(scenes);
  std::printf("heights of %d scenes under 3 to 8 lamps at random places\n", scenes);
  for (const auto& [name, count] :
       {std::pair("as they come", counts.as_is), std::pair("upright", counts.upright),
        std::pair("upright, one lamp known", counts.with_hint)}) {
    std::printf("  %-24s %4d upright, %4d inverted, %4d neither\n", name, count.upright,
                count.inverted, count.neither);
  }
}

void Run(const Options& options) {
  if (options.upright_scenes > 0) {
    PrintUprightCounts(options.upright_scenes);
    return;
  }
  std::vector<Task> tasks;
  for (const std::string& size : options.sizes) {
    for (const int images : options.images) {
      tasks.push_back({ParseSize(size), images, options.band, options.iteration_cap});
    }
  }
  std::printf("%s, %u threads\n\n", ProcessorName().c_str(), std::thread::hardware_concurrency());

  json report = {{"processor", ProcessorName()},
                 {"threads", std::thread::hardware_concurrency()},
                 {"memory", json::array()},
                 {"busy", json::array()},
                 {"scenes", json::array()}};
  // Memory first: the peak of a child counts from what its parent has.
  for (const Task& task : tasks) report["memory"].push_back(MeasurePeakMemory(task));
  for (const Task& task : tasks) {
    if (task.images == options.images.front()) {
      report["busy"].push_back(MeasureBusyHeight(task, 3 * options.repeats));
    }
  }
  for (const Task& task : tasks) report["scenes"].push_back(MeasureTask(task, options.repeats));
  if (options.json_file.empty()) return;
  std::ofstream file(options.json_file);
  file << report.dump(2) << '\n';
  if (!file.flush()) throw std::runtime_error("cannot write '" + options.json_file + "'");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Speed of the library against the straightforward implementation");
  Options options;
  app.add_option("--size", options.sizes, "Frame sizes, WIDTHxHEIGHT")->capture_default_str();
  app.add_option("--images", options.images, "Image counts, 3 to 8")
      ->check(CLI::Range(3, 8))
      ->capture_default_str();
  app.add_option("--band", options.band, "Rows or columns of a piece in the partial runs")
      ->check(CLI::Range(10, 100000))
      ->capture_default_str();
  app.add_option("--cap", options.iteration_cap, "Iterations of the height at most")
      ->check(CLI::Range(0, 100000))
      ->capture_default_str();
  app.add_option("--repeats", options.repeats, "Repetitions; the best counts")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  app.add_option("--json", options.json_file, "Also write the numbers to this file");
  app.add_option("--upright", options.upright_scenes,
                 "Instead: count the heights of so many sample scenes that come out upright")
      ->check(CLI::Range(1, 100000))
      ->type_name("SCENES");
  try {
    app.parse(argc, argv);
    Run(options);
  } catch (const CLI::ParseError& error) {
    const int code = app.exit(error);
    return code == 0 ? 0 : 2;
  } catch (const std::exception& error) {
    std::cerr << "velostrix_bench: " << error.what() << '\n';
    return 1;
  }
  return 0;
}
