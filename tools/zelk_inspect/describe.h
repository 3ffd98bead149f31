#ifndef ZELK_INSPECT_DESCRIBE_H
#define ZELK_INSPECT_DESCRIBE_H

#include <cstdint>
#include <map>
#include <string>

#include "document.h"
#include "options.h"
#include "segment_view.h"

// What a segment's bytes say, for an operator. Any bytes may be given. A view that could not be
// read to its end makes a description of nothing: ask SegmentView::Finish().
//
// The figures are those whose difference between two looks is a rate.
typedef std::map<std::string, uint64_t> Figures_t;

void DescribeQueue(const SegmentView& stView, const Options_t& stOptions, Document& stDocument);
void DescribeHeap(const SegmentView& stView, const Options_t& stOptions, Document& stDocument,
                  Figures_t& mapFigures);
void DescribeTable(const SegmentView& stView, const Options_t& stOptions, Document& stDocument,
                   Figures_t& mapFigures);

// Adds up how far a ring's offsets move. Each look must come before a whole ring has gone by.
class RingRate {
 public:
  void Look(const SegmentView& stView);
  // By second, over that time. Only then is it known that there were two looks.
  void AddTo(Document& stDocument, double fSeconds) const;
  uint64_t Written() const { return m_iWritten; }
  uint64_t Taken() const { return m_iTaken; }

 private:
  bool m_bFirst = true;
  uint64_t m_iRead = 0;
  uint64_t m_iWrite = 0;
  uint64_t m_iWritten = 0;
  uint64_t m_iTaken = 0;
};

// The differences of figures, by second.
void AddRates(const Figures_t& mapBefore, const Figures_t& mapAfter, double fSeconds,
              Document& stDocument);

#endif
