// Whole sessions: every allocation fails in turn; tools beside each other; processes, signals and
// floating-point states of applications.
#include <dlfcn.h>
#include <fenv.h>
#include <gtest/gtest.h>
#include <malloc.h>
#if defined(__x86_64__)
#include <pmmintrin.h>
#endif
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <new>
#include <random>
#include <set>
#include <thread>

#include "interface/host_tool.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsTheSanitizers = true;  // which keeps what is freed, and finds leaks itself
#else
constexpr bool kMemoryIsTheSanitizers = false;
#endif
#if defined(VELOSTRIX_EMULATED)
constexpr bool kEmulated = true;  // by qemu, which forks with one thread only and limits no memory
#else
constexpr bool kEmulated = false;
#endif

namespace velostrix {
namespace {

// Which allocation fails, from 0.
constexpr int64_t kNever = -1;
int64_t until_failure = kNever;
bool has_failed = false;

bool FailsNow() {
  if (until_failure == kNever || --until_failure != kNever) return false;
  has_failed = true;
  return true;
}

// Images are allocated in OpenCV's own libraries.
class FailingMatAllocator : public cv::MatAllocator {
 public:
  cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, size_t* step,
                         cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    if (FailsNow()) CV_Error(cv::Error::StsNoMem, "no memory, says the test");
    return cv::Mat::getStdAllocator()->allocate(dims, sizes, type, data, step, flags, usage);
  }
  bool allocate(cv::UMatData* data, cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    return cv::Mat::getStdAllocator()->allocate(data, flags, usage);
  }
  void deallocate(cv::UMatData* data) const override {
    cv::Mat::getStdAllocator()->deallocate(data);
  }
};

}  // namespace
}  // namespace velostrix

// The linker turns the library's references to the allocators to these.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real__Znwm(size_t size);
void* __real__Znam(size_t size);
void* __real__ZnwmSt11align_val_t(size_t size, std::align_val_t alignment);

void* __wrap_malloc(size_t size) { return velostrix::FailsNow() ? nullptr : __real_malloc(size); }
void* __wrap_calloc(size_t count, size_t size) {
  return velostrix::FailsNow() ? nullptr : __real_calloc(count, size);
}
void* __wrap__Znwm(size_t size) {
  if (velostrix::FailsNow()) throw std::bad_alloc();
  return __real__Znwm(size);
}
void* __wrap__Znam(size_t size) {
  if (velostrix::FailsNow()) throw std::bad_alloc();
  return __real__Znam(size);
}
void* __wrap__ZnwmSt11align_val_t(size_t size, std::align_val_t alignment) {
  if (velostrix::FailsNow()) throw std::bad_alloc();
  return __real__ZnwmSt11align_val_t(size, alignment);
}
}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace velostrix {
namespace {

using Bytes = std::vector<uint8_t>;

struct Session {
  RunKind run = RunKind::kUncalibrated;
  cv::Size size;
  size_t image_count = 3;
  double scale = 1.0;
  bool has_region = false;
  bool repeats_image = false;

  UnCalibrationParam Param() const {
    UnCalibrationParam param = EverythingOn(size, image_count);
    param.scale = scale;
    param.blur_radius = 1;
    param.iteration_cap = 20;
    param.equalise_on = 1;
    return param;
  }

  std::vector<cv::Mat> Images() const {
    std::mt19937 random(static_cast<unsigned>(size.width * 100) + image_count);
    std::vector<cv::Mat> images;
    for (size_t k = 0; k < image_count; ++k) {
      images.emplace_back(size, CV_8UC1);
      for (uint8_t& level : cv::Mat1b(images.back())) level = static_cast<uint8_t>(random());
    }
    if (repeats_image) std::fill(images.begin(), images.end(), images[0]);
    return images;
  }

  void Prepare(HostTool& tool) const {
    tool.ReleaseImage();
    tool.SetParam(Param());
    if (has_region) tool.SetRegion({1, 1, size.width - 2, size.height - 2});
    tool.InitialImage();
  }

  // Sets the images, runs, and puts the results together; nothing when something was refused.
  Bytes Run(HostTool& tool, const std::vector<cv::Mat>& images) const {
    tool.ClearImage();
    for (const cv::Mat& image : images) {
      if (!tool.SetImage(image)) return {};
    }
    Results results;
    if (tool.Run(run, results, 16) != 1) return {};
    Bytes bytes;
    for (const cv::Mat& image : results) {
      const cv::Mat packed = image.clone().reshape(1, 1);
      bytes.insert(bytes.end(), packed.datastart, packed.dataend);
    }
    return bytes;
  }

  Bytes RunAlone() const {
    HostTool tool(Param());
    Prepare(tool);
    return Run(tool, Images());
  }
};

// Every allocation fails in turn. A tool then refuses or works, and can be released.
void FailEveryAllocation(const Session& session) {
  const Session earlier = {RunKind::kUncalibrated, {5, 4}};
  const std::vector<cv::Mat> images = session.Images();
  const Bytes expected = session.RunAlone();
  ASSERT_FALSE(expected.empty());
  FailingMatAllocator allocator;

  size_t bytes_in_use = 0;
  int64_t failing = 0;
  for (has_failed = true; has_failed; ++failing) {
    SCOPED_TRACE(testing::Message() << "allocation " << failing);
    {
      HostTool tool(earlier.Param());
      // What an earlier session has left must survive, too.
      earlier.Prepare(tool);
      ASSERT_FALSE(earlier.Run(tool, earlier.Images()).empty());
      bool is_done = false;
      cv::Mat::setDefaultAllocator(&allocator);
      has_failed = false;
      until_failure = failing;
      try {
        session.Prepare(tool);
        is_done = !session.Run(tool, images).empty();
      } catch (const std::bad_alloc&) {
      } catch (const cv::Exception& error) {
        EXPECT_EQ(error.code, cv::Error::StsNoMem) << error.what();
      }
      until_failure = kNever;
      cv::Mat::setDefaultAllocator(cv::Mat::getStdAllocator());
      EXPECT_EQ(is_done, !has_failed);

      // The session is repeated as it stands: after a failed InitialImage it is refused.
      const Bytes repeated = session.Run(tool, images);
      EXPECT_TRUE(repeated.empty() || repeated == expected);
      session.Prepare(tool);
      EXPECT_EQ(session.Run(tool, images), expected);
    }
    // The first sessions fill what the dependencies keep. Sanitizers count leaks by themselves.
    if (failing == 20) bytes_in_use = mallinfo2().uordblks;
    EXPECT_TRUE(failing <= 20 || mallinfo2().uordblks <= bytes_in_use + 16384);
  }
  // The buffers, the images and their equalisation, the decomposition, the results.
  EXPECT_GT(failing, 70);
}

TEST(AllocationFailure, OfUncalibratedRuns) {
  FailEveryAllocation({RunKind::kUncalibrated, {40, 30}});
  FailEveryAllocation({RunKind::kUncalibrated, {24, 20}, 4, 1.0, true});
}
TEST(AllocationFailure, OfTheCalibratedRun) {
  FailEveryAllocation({RunKind::kCalibrated, {44, 40}, 3, 0.9, true});
}
TEST(AllocationFailure, OfStrips) {
  FailEveryAllocation({RunKind::kPartCols, {40, 64}, 4});
  FailEveryAllocation({RunKind::kPartCols, {24, 20}, 3, 0.8});
}
TEST(AllocationFailure, OfBands) {
  FailEveryAllocation({RunKind::kPartRows, {110, 26}, 4, 1.0, false, true});
  FailEveryAllocation({RunKind::kPartRows, {80, 33}});
}

const std::vector<Session> kSessions = {{RunKind::kUncalibrated, {40, 30}, 3},
                                        {RunKind::kCalibrated, {65, 41}, 5, 1.0, true},
                                        {RunKind::kPartCols, {90, 33}, 4, 0.7},
                                        {RunKind::kPartRows, {33, 64}, 8, 1.0, true},
                                        {RunKind::kUncalibrated, {200, 150}, 4, 0.5, true},
                                        {RunKind::kPartRows, {241, 190}, 4}};

std::vector<Bytes> BytesOf(const std::vector<Session>& sessions) {
  std::vector<Bytes> bytes;
  for (const Session& session : sessions) bytes.push_back(session.RunAlone());
  return bytes;
}

int64_t CountThreads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

// The height on threads, scaling, and both kinds of blur on images that OpenCV would share.
const std::vector<Session> kThreadedSessions = {{RunKind::kCalibrated, {640, 480}, 3},
                                                {RunKind::kPartCols, {900, 700}, 4, 0.8, true}};

// The system lists a thread a moment longer than it can be joined.
void AwaitThreads(int64_t count) {
  for (int k = 0; k < 1000 && CountThreads() > count; ++k) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_TRUE(kMemoryIsTheSanitizers || CountThreads() <= count);
}

bool MayStartNoThread() {
  constexpr uid_t kNobody = 65534;
  constexpr rlimit kNone = {0, 0};
  if ((geteuid() == 0 && setuid(kNobody) != 0) || setrlimit(RLIMIT_NPROC, &kNone) != 0)
    return false;
  try {
    std::thread([] {}).join();
    return false;
  } catch (const std::system_error&) {
    return true;
  }
}

// From the start: no memory waits in children that the parent has freed or reserved.
[[maybe_unused]] const int kMemoryGoesBack =
    mallopt(M_MMAP_THRESHOLD, 1 << 20) + mallopt(M_ARENA_MAX, 1);

bool HasMegabytesLeft(rlim_t megabytes) {
  rlim_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const rlim_t bytes = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (megabytes << 20U);
  const rlimit limit = {bytes, bytes};
  return setrlimit(RLIMIT_AS, &limit) == 0;
}

// How a forked child that has been prepared fares with the sessions; it must neither hang nor die.
std::string OutcomeInChild(const std::vector<Bytes>& expected,
                           const std::function<bool()>& prepare) {
  constexpr const char* kOutcomes[] = {"same bytes", "no memory", "other bytes", "not prepared"};
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    try {
      if (!prepare()) _exit(3);
      const std::vector<Bytes> bytes = BytesOf(kThreadedSessions);
      const bool refused = bytes[0].empty() || bytes[1].empty();
      _exit(bytes == expected ? 0 : refused ? 1 : 2);
    } catch (const std::bad_alloc&) {
      _exit(1);
    } catch (const cv::Exception& error) {
      _exit(error.code == cv::Error::StsNoMem ? 1 : 2);
    }
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? kOutcomes[WEXITSTATUS(status)] : strsignal(WTERMSIG(status));
}

// Each call of one tool leaves no thread behind, whatever the others are at; nor may OpenCV's pool.
TEST(Processes, ToolsOnSeveralThreadsGiveTheBytesOfOneAloneAndLeaveNoThread) {
  const int64_t threads_before = CountThreads();
  const std::vector<Bytes> expected = BytesOf(kSessions);
  const std::vector<Bytes> expected_threaded = BytesOf(kThreadedSessions);
  std::atomic<int> different = 0;
  std::vector<std::thread> threads;
  for (int k = 0; k < 4; ++k) {
    threads.emplace_back([&] {
      for (int round = 0; round < (kEmulated ? 2 : 10); ++round) {
        different += BytesOf(kSessions) != expected;
        different += BytesOf(kThreadedSessions) != expected_threaded;
      }
    });
  }
  // Forked in the middle of their calls; a sanitizer's own locks do not survive that.
  for (int k = 0; k < 10 && !kMemoryIsTheSanitizers && !kEmulated; ++k) {
    different += OutcomeInChild(expected_threaded, [] { return true; }) != "same bytes";
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(different, 0);
  AwaitThreads(threads_before);
}

TEST(Processes, ChildrenRunAfterAHeightInTheParentWithoutThreadsAndWithLittleMemory) {
  const int64_t threads = CountThreads();
  const std::vector<Bytes> expected = BytesOf(kThreadedSessions);
  AwaitThreads(threads);
  EXPECT_EQ(OutcomeInChild(expected, [] { return true; }), "same bytes");
  if (kMemoryIsTheSanitizers) return;  // and so are some threads
  EXPECT_EQ(OutcomeInChild(expected, MayStartNoThread), "same bytes");
  if (kEmulated) return;
  std::set<std::string> outcomes;
  for (rlim_t megabytes = 4; megabytes < 140; megabytes += 4) {
    outcomes.insert(OutcomeInChild(expected, [&] { return HasMegabytesLeft(megabytes); }));
  }
  EXPECT_EQ(outcomes, (std::set<std::string>{"no memory", "same bytes"}));
}

TEST(Processes, AnUnloadedModuleIsGone) {
  void* const module = dlopen(VELOSTRIX_MODULE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr) << dlerror();
  ASSERT_EQ(dlclose(module), 0);
  EXPECT_EQ(dlopen(VELOSTRIX_MODULE, RTLD_NOW | RTLD_NOLOAD), nullptr);
}

// A signal that the application has blocked stays blocked, also on the threads of the height.
TEST(Processes, TheHostsSignalsAreItsOwn) {
  sigset_t blocked, waiting, left;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
  kill(getpid(), SIGUSR1);
  BytesOf(kThreadedSessions);
  sigpending(&waiting);
  pthread_sigmask(SIG_SETMASK, nullptr, &left);
  EXPECT_EQ(sigismember(&waiting, SIGUSR1), 1);
  EXPECT_EQ(sigismember(&left, SIGUSR1) + sigismember(&left, SIGUSR2), 1);
  int signal = 0;
  sigwait(&blocked, &signal);
}

#if defined(__aarch64__)
uint64_t FloatingPointState() {
  uint64_t control = 0;
  uint64_t flags = 0;
  __asm__ volatile("mrs %0, fpcr; mrs %1, fpsr" : "=r"(control), "=r"(flags));
  return control << 32U | flags;
}
void FlushSubnormals() {
  __asm__ volatile("msr fpcr, %0" : : "r"(FloatingPointState() >> 32U | 1U << 24U));
}
#else
uint64_t FloatingPointState() { return _mm_getcsr(); }
void FlushSubnormals() {
  _MM_SET_FLUSH_ZERO_MODE(_MM_FLUSH_ZERO_ON);
  _MM_SET_DENORMALS_ZERO_MODE(_MM_DENORMALS_ZERO_ON);
}
#endif

// Random images hold black pixels, whose slopes divide by zero.
TEST(Processes, TheHostsFloatingPointStateChangesNothingAndIsKept) {
  const std::vector<Bytes> expected = BytesOf(kThreadedSessions);
  fenv_t before;
  fegetenv(&before);
  const std::function<void()> states[] = {[] { fesetround(FE_UPWARD); },
                                          [] { feenableexcept(FE_ALL_EXCEPT); }, FlushSubnormals};
  for (const auto& set_state : states) {
    for (size_t k = 0; k < kThreadedSessions.size(); ++k) {
      const Session& session = kThreadedSessions[k];
      const std::vector<cv::Mat> images = session.Images();
      HostTool tool(session.Param());
      set_state();
      const uint64_t state = FloatingPointState();
      session.Prepare(tool);
      const Bytes bytes = session.Run(tool, images);
      EXPECT_EQ(FloatingPointState(), state);
      fesetenv(&before);
      EXPECT_EQ(bytes, expected[k]) << k;
    }
  }
}

}  // namespace
}  // namespace velostrix
