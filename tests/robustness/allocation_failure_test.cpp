// Every allocation of a session fails in turn: nothing breaks, nothing leaks, the tool recovers.
#include <gtest/gtest.h>
#include <malloc.h>

#include <new>
#include <string>

#include "failing_allocations.h"
#include "host_session.h"

namespace velostrix {
namespace {

// Eigen's decompositions (3.4) destroy a member twice when one of their vectors of a few numbers
// cannot be had: blocks below 512 bytes succeed where there are decompositions.
constexpr size_t kEveryBlock = 1;
constexpr size_t kNoSmallBlock = 512;

struct Case {
  SessionCase session;
  size_t smallest_failing;
};

class AllocationFailure : public testing::TestWithParam<Case> {};

TEST_P(AllocationFailure, LeavesAToolThatRefusesOrWorksAndCanBeReleased) {
  const auto [session, smallest_failing] = GetParam();
  const UnCalibrationParam param = EveryOutput(session);
  const std::vector<cv::Mat> images = NoiseImages(session);
  const std::vector<uint8_t> expected = BytesOfSession(session);
  ASSERT_FALSE(expected.empty());

  size_t bytes_in_use = 0;
  int64_t failing = 0;
  for (;; ++failing) {
    SCOPED_TRACE("allocation " + std::to_string(failing));
    bool has_failed = false;
    {
      HostSession host;
      Results results;
      // What an earlier session has left must survive, too.
      const SessionCase earlier = {5, 4, 3, 1.0, 0, false};
      host.Prepare(earlier, EveryOutput(earlier));
      ASSERT_TRUE(host.Run(earlier, NoiseImages(earlier), results));
      bool ran = false;
      StartFailingAllocations(failing, smallest_failing);
      try {
        host.Prepare(session, param);
        ran = host.Run(session, images, results);
      } catch (const std::bad_alloc&) {
      } catch (const cv::Exception& error) {
        EXPECT_EQ(error.code, cv::Error::StsNoMem) << error.what();
      }
      has_failed = StopFailingAllocations();

      // The session is repeated as it stands: after a failed InitialImage it is refused.
      if (host.Run(session, images, results)) {
        EXPECT_EQ(BytesOf(results), expected);
      }
      EXPECT_EQ(ran, !has_failed);
      host.Prepare(session, param);
      ASSERT_TRUE(host.Run(session, images, results));
      EXPECT_EQ(BytesOf(results), expected);
    }
    if (!has_failed) break;
    // The first sessions fill what the dependencies keep. Sanitizers count leaks by themselves.
    if (failing == 20) bytes_in_use = mallinfo2().uordblks;
    if (failing > 20) {
      EXPECT_LE(mallinfo2().uordblks, bytes_in_use + 16384);
    }
  }
  // The buffers, the images and their equalisation, the decomposition, the results.
  EXPECT_GT(failing, 40);
}

std::string NameOf(const testing::TestParamInfo<Case>& info) {
  constexpr const char* kRuns[] = {"Uncali", "Cali", "PartCols", "PartRows"};
  const SessionCase& session = info.param.session;
  return kRuns[session.run] + std::to_string(session.width) + "x" + std::to_string(session.height);
}

INSTANTIATE_TEST_SUITE_P(Sessions, AllocationFailure,
                         testing::Values(Case{{40, 30, 3, 1.0, 0, false}, kNoSmallBlock},
                                         Case{{24, 20, 4, 1.0, 0, true}, kNoSmallBlock},
                                         Case{{44, 40, 3, 0.9, 1, true}, kEveryBlock},
                                         Case{{40, 60, 4, 1.0, 2, false}, kNoSmallBlock},
                                         Case{{24, 20, 3, 0.8, 2, false}, kNoSmallBlock},
                                         Case{{160, 40, 4, 1.0, 3, false}, kNoSmallBlock},
                                         Case{{80, 33, 3, 1.0, 3, false}, kNoSmallBlock}),
                         NameOf);

}  // namespace
}  // namespace velostrix
