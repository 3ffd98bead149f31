#ifndef ZELK_INSPECT_VERIFY_H
#define ZELK_INSPECT_VERIFY_H

#include <string>
#include <vector>

#include "options.h"
#include "segment_format.h"
#include "segment_view.h"

enum Verdict_t {
  VERDICT_SOUND,
  VERDICT_NOT_SOUND,
  VERDICT_UNKNOWN,  // reader and writer leave no time to look
};

struct Verification_t {
  Verdict_t eVerdict = VERDICT_UNKNOWN;
  Format_t eFormat = FORMAT_NONE;
  uint64_t iLooks = 0;
  std::vector<std::string> vecFaults;  // that stay
  std::vector<std::string> vecNotes;   // counters that stand too high, blocks that nobody has
};

// One of our formats is checked. In a live segment a fault counts when every look sees it: what a
// writer has half done is done at the next look.
Verification_t Verify(const SegmentView& stView);

// The command; its exit code.
int RunVerify(const Options_t& stOptions);

#endif
