// Replays call sequences from files and folders, or makes random ones:
//   velostrix_replay FILE_OR_FOLDER...
//   velostrix_replay --random COUNT
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "call_sequence.h"

namespace {

namespace fs = std::filesystem;
using velostrix::fuzz::RunCallSequence;

std::vector<fs::path> FilesOf(const fs::path& path) {
  if (!fs::is_directory(path)) return {path};
  std::vector<fs::path> files;
  for (const auto& entry : fs::recursive_directory_iterator(path)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool Replay(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    std::fprintf(stderr, "replay: cannot open %s; give files or folders of call sequences\n",
                 path.string().c_str());
    return false;
  }
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  std::fprintf(stderr, "%s\n", path.filename().string().c_str());
  RunCallSequence(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return true;
}

void ReplayRandom(int count) {
  std::mt19937 random(1);
  std::vector<uint8_t> bytes(256);
  for (int k = 0; k < count; ++k) {
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
    RunCallSequence(bytes.data(), bytes.size());
  }
}

}  // namespace

int main(int argc, char** argv) {
  size_t replayed = 0;
  if (argc == 3 && std::strcmp(argv[1], "--random") == 0) {
    const int count = std::max(std::atoi(argv[2]), 0);
    ReplayRandom(count);
    replayed = static_cast<size_t>(count);
  } else {
    for (int i = 1; i < argc; ++i) {
      for (const fs::path& path : FilesOf(argv[i])) {
        if (!Replay(path)) return 2;
        ++replayed;
      }
    }
  }
  std::printf("replay: %zu call sequences, nothing found\n", replayed);
  if (replayed == 0) std::fprintf(stderr, "replay: nothing to replay; give files or folders\n");
  return replayed > 0 ? 0 : 2;
}
