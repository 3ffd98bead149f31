#include "sweep.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "single_step.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || !defined(__OPTIMIZE__)
const unsigned int USUAL_STRIDE = 101;  // an operation is thousands of instructions
#else
const unsigned int USUAL_STRIDE = 3;
#endif

// Prints what was done once all tests are through.
class Totals : public ::testing::Environment {
 public:
  void TearDown() override {
    printf(
        "single-step sweep: %u operations, ended after %u different instructions; %u states "
        "sound\n",
        iOperations, iInstructions, iSound);
  }

  unsigned int iOperations = 0;
  unsigned int iInstructions = 0;
  unsigned int iSound = 0;
};

Totals* const g_pTotals = new Totals;  // gtest deletes it
const ::testing::Environment* const g_pRegistered = ::testing::AddGlobalTestEnvironment(g_pTotals);

}  // namespace

void SweepInstructions(const Sweep_t& stSweep) {
  const unsigned int iStride = getenv("ZELK_EVERY_INSTRUCTION") != nullptr ? 1 : USUAL_STRIDE;
  unsigned int iInstructions = 0;
  g_pTotals->iOperations += 1;
  for (bool bMore = true; bMore; iInstructions += iStride) {
    SCOPED_TRACE("killed after " + std::to_string(iInstructions) + " instructions");
    stSweep.fnArrange();
    bMore = KillAfter(iInstructions, stSweep.fnPrepare, stSweep.fnOperation);
    g_pTotals->iInstructions += 1;
    stSweep.fnCheck(!bMore);
    ASSERT_FALSE(::testing::Test::HasFailure());
    g_pTotals->iSound += 1;
  }
  EXPECT_GT(iInstructions, 20u);
}
