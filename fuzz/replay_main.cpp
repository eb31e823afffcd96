// Replays call sequences from the files and folders that it is given.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "call_sequence.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> FilesOf(const fs::path& path) {
  if (!fs::is_directory(path)) return {path};
  std::vector<fs::path> files;
  for (const auto& entry : fs::recursive_directory_iterator(path)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (const fs::path& path : FilesOf(argv[i])) {
      std::ifstream file(path, std::ios::binary);
      if (!file) {
        std::fprintf(stderr, "replay: cannot open %s; give files or folders of call sequences\n",
                     path.string().c_str());
        return 2;
      }
      const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
      std::fprintf(stderr, "%s\n", path.filename().string().c_str());
      velostrix::fuzz::RunCallSequence(reinterpret_cast<const uint8_t*>(bytes.data()),
                                       bytes.size());
      ++replayed;
    }
  }
  std::printf("replay: %zu call sequences, nothing found\n", replayed);
  if (replayed == 0) std::fprintf(stderr, "replay: nothing to replay; give files or folders\n");
  return replayed > 0 ? 0 : 2;
}
