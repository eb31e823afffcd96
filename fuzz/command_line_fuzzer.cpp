// Runs the command line with arguments and damaged image files made from a seed:
//   command_line_fuzzer PROGRAM FOLDER [RUNS [SEED]]
// The folder is for scratch files. Every call must end by itself with exit code 0, 1 or 2; one that
// fails says why in one line, its last, on stderr.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <random>
#include <string>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Random = std::mt19937;

std::string ReadAll(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// An image file, or what is left of one after cuts and changed bytes.
fs::path WriteImage(const fs::path& folder, int number, Random& random) {
  constexpr const char* kFormats[] = {".png", ".bmp", ".tif", ".jpg"};
  const fs::path path = folder / ("image" + std::to_string(number) + kFormats[random() % 4]);
  constexpr int kTypes[] = {CV_8UC1, CV_8UC1, CV_8UC1, CV_8UC3, CV_16UC1};
  const bool is_odd = random() % 24 == 0;
  cv::Mat image(is_odd ? 1 + static_cast<int>(random() % 40) : 24, 32, kTypes[random() % 5]);
  cv::randu(image, 0, 255);
  cv::imwrite(path.string(), image);
  if (random() % 8 != 0) return path;
  std::string bytes = ReadAll(path);
  for (auto changes = random() % 8; changes > 0; --changes) {
    bytes[random() % bytes.size()] = static_cast<char>(random());
  }
  if (random() % 3 == 0) bytes.resize(random() % bytes.size());
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

std::vector<std::string> MakeArguments(const fs::path& folder, Random& random) {
  const std::vector<std::string> options = {
      "--run",      "--band",           "--outputs", "--roi",        "--scale",
      "--equalise", "--difference",     "--blur",    "--iterations", "--gain",
      "--offset",   "--split-channels", "--quiet",   "--nonsense"};
  const std::vector<std::string> values = {"uncali",
                                           "cali",
                                           "partcols",
                                           "partrows",
                                           "height,normal",
                                           "0,0,15,15",
                                           "-1,-1,99,99",
                                           "0.5",
                                           "nan",
                                           "-inf",
                                           "1e300",
                                           "0",
                                           "3",
                                           "-1",
                                           "2147483648",
                                           "forward",
                                           "factor=2",
                                           "channel0=nan",
                                           "curvature=",
                                           "magnitude=1e9",
                                           "",
                                           "%s%n",
                                           "--",
                                           "5,5,4,4"};
  std::vector<std::string> arguments = {random() % 16 == 0 ? "sheet" : "reconstruct"};
  const int images = random() % 4 == 0 ? static_cast<int>(random() % 10) : 3;
  for (int i = 0; i < images; ++i) arguments.push_back(WriteImage(folder, i, random).string());
  for (auto more = random() % 4; more > 0; --more) {
    arguments.push_back(options[random() % options.size()]);
    if (random() % 5 != 0) arguments.push_back(values[random() % values.size()]);
  }
  arguments.insert(arguments.end(), {"--out", (folder / "out").string()});
  return arguments;
}

// The exit code; -1 for a program that a signal has ended.
int Call(const std::string& program, const std::vector<std::string>& arguments,
         const fs::path& error_file) {
  std::vector<char*> argv = {const_cast<char*>(program.c_str())};
  for (const std::string& text : arguments) argv.push_back(const_cast<char*>(text.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&files, 2, error_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  pid_t child = 0;
  int status = 0;
  const int failed = posix_spawn(&child, program.c_str(), &files, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&files);
  if (failed != 0 || waitpid(child, &status, 0) != child) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "command_line_fuzzer: expected PROGRAM FOLDER [RUNS [SEED]]\n");
    return 2;
  }
  const fs::path folder = argv[2];
  const int runs = argc > 3 ? std::atoi(argv[3]) : 200;
  const unsigned seed = argc > 4 ? static_cast<unsigned>(std::atoi(argv[4])) : 1;
  int done = 0;
  for (int run = 0; run < runs; ++run) {
    Random random(seed + static_cast<unsigned>(run));
    fs::remove_all(folder);
    fs::create_directories(folder);
    const std::vector<std::string> arguments = MakeArguments(folder, random);
    const int code = Call(argv[1], arguments, folder / "stderr");
    const std::string said = ReadAll(folder / "stderr");
    done += code == 0 ? 1 : 0;
    const size_t last_line = said.rfind("velostrix: ");
    const bool says_why =
        last_line != std::string::npos && said.find('\n', last_line) + 1 == said.size();
    if ((code >= 0 && code <= 2) && (code == 0 || says_why)) continue;
    std::fprintf(stderr, "command_line_fuzzer: run with seed %u: exit code %d, stderr: %s\n",
                 seed + static_cast<unsigned>(run), code, said.c_str());
    for (const std::string& text : arguments) std::fprintf(stderr, "  '%s'\n", text.c_str());
    return 1;
  }
  std::printf("command_line_fuzzer: %d calls from seed %u, %d done, the others refused\n", runs,
              seed, done);
  return 0;
}
