// Many sessions, one after another and beside each other: the same bytes, no growth.
// VELOSTRIX_ENDURANCE_RUNS sets the number of runs.
#include <gtest/gtest.h>
#include <omp.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "host_session.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsTheSanitizers = true;  // which keeps what is freed, and finds leaks itself
#else
constexpr bool kMemoryIsTheSanitizers = false;
#endif

namespace velostrix {
namespace {

const std::vector<SessionCase> kSessions = {
    {40, 30, 3, 1.0, 0, false}, {65, 41, 5, 1.0, 1, true},  {90, 33, 4, 0.7, 2, false},
    {33, 64, 8, 1.0, 3, true},  {24, 20, 6, 1.0, 0, false}, {200, 150, 4, 0.5, 0, true},
    {7, 9, 3, 1.0, 2, false},   {128, 96, 7, 1.0, 1, false}};

int64_t ResidentBytes() {
  int64_t pages_of_program = 0;
  int64_t resident_pages = 0;
  std::ifstream("/proc/self/statm") >> pages_of_program >> resident_pages;
  return resident_pages * sysconf(_SC_PAGESIZE);
}

int64_t OpenFiles() {
  const std::filesystem::directory_iterator files("/proc/self/fd");
  return std::distance(begin(files), end(files));
}

std::vector<std::vector<uint8_t>> BytesOfAllSessions() {
  std::vector<std::vector<uint8_t>> bytes;
  for (const SessionCase& session : kSessions) bytes.push_back(BytesOfSession(session));
  return bytes;
}

TEST(Endurance, ManyRunsOnOneToolGiveTheFirstBytesAndTakeNoMoreMemory) {
  const char* asked = std::getenv("VELOSTRIX_ENDURANCE_RUNS");
  const int runs = asked != nullptr ? std::atoi(asked) : 160;
  const auto expected = BytesOfAllSessions();
  HostSession host;
  int64_t resident = 0;
  int64_t files = 0;
  for (int run = 0; run < runs; ++run) {
    const size_t k = static_cast<size_t>(run) % kSessions.size();
    const SessionCase& session = kSessions[k];
    Results results;
    UnCalibrationParam param = EveryOutput(session);
    if (session.scale == 1.0) {
      // Once on, scaling goes off only with a region that is too small for it.
      param.scale = 1e-6;
      SetVelostrixUnCalibrationToolParam_CPU(host.tool(), &param);
      SetVelostrixUnCalibrationToolROI_CPU(host.tool(), 0, 0, 5, 5);
      param.scale = 1.0;
    }
    host.Prepare(session, param);
    if (!session.region) {
      ReleaseVelostrixUnCalibrationToolImage_CPU(host.tool());
      ClearVelostrixUnCalibrationToolROI_CPU(host.tool(), session.height, session.width,
                                             session.width);
      InitialVelostrixUnCalibrationToolImage_CPU(host.tool());
    }
    ASSERT_TRUE(host.Run(session, NoiseImages(session), results)) << "run " << run;
    ASSERT_EQ(BytesOf(results), expected[k]) << "run " << run;
    if (run == runs / 4) {
      resident = ResidentBytes();
      files = OpenFiles();
    }
  }
  constexpr int64_t kNoise = 1 << 20;
  if (!kMemoryIsTheSanitizers) {
    EXPECT_LE(ResidentBytes(), resident + kNoise);
  }
  EXPECT_EQ(OpenFiles(), files);
}

TEST(Endurance, ToolsOnSeveralThreadsGiveTheBytesOfOneAlone) {
  const auto expected = BytesOfAllSessions();
  std::vector<std::vector<std::vector<uint8_t>>> found(4);
  std::vector<std::thread> threads;
  for (auto& bytes : found) {
    threads.emplace_back([&bytes] {
      // The threads under test are these.
      omp_set_num_threads(1);
      bytes = BytesOfAllSessions();
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& bytes : found) EXPECT_EQ(bytes, expected);
}

}  // namespace
}  // namespace velostrix
