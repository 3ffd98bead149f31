#ifndef ZELK_INSPECT_PROCESS_VIEW_H
#define ZELK_INSPECT_PROCESS_VIEW_H

#include <memory>
#include <string>

#include "segment_holders.h"
#include "segment_status.h"
#include "segment_view.h"

// A view of a segment, live through one of its holders, which does not notice; a segment that
// nobody holds is attached read-only for as long as the view lives. Null and *pError when neither
// can be done.
//
// Looking at pages that were never touched gives them memory, as a read by their owner would.
// pKnown: its holders, when they were looked up already.
std::unique_ptr<SegmentView> OpenSegment(const SegmentStatus_t& stStatus, std::string* pError,
                                         const Holders_t* pKnown = nullptr);

#endif
