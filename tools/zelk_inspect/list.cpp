#include "list.h"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "document.h"
#include "process_view.h"
#include "segment_format.h"
#include "segment_holders.h"
#include "segment_status.h"

namespace {

// "?" when it may not be read.
std::string FormatText(const SegmentStatus_t& stStatus, const Holders_t& stHolders) {
  std::string strError;
  const auto pView = OpenSegment(stStatus, &strError, &stHolders);
  if (pView == nullptr) {
    return "?";
  }
  const Format_t eFormat = FormatOf(*pView, false);
  return pView->Finish().empty() ? FormatName(eFormat) : "?";
}

}  // namespace

int RunList(const Options_t& stOptions) {
  std::vector<Document::Row_t> vecRows;
  const std::vector<SegmentStatus_t> vecSegments = ListSegments();
  const std::map<int, Holders_t> mapHolders = FindAllHolders();
  for (const SegmentStatus_t& stStatus : vecSegments) {
    const auto it = mapHolders.find(stStatus.iId);
    const Holders_t& stHolders = it == mapHolders.end() ? mapHolders.at(-1) : it->second;
    const std::string strFormat = FormatText(stStatus, stHolders);
    if (!stOptions.bAll && (strFormat == "?" || strFormat == FormatName(FORMAT_NONE))) {
      continue;
    }
    vecRows.push_back({stStatus.iId, KeyText(stStatus.iKey), strFormat, stStatus.iSize,
                       stStatus.iAttached, HolderText(stHolders, stStatus.iAttached)});
  }
  Document stDocument;
  stDocument.Add("segments_found", uint64_t{vecRows.size()});
  stDocument.AddList("segments", {"id", "key", "format", "size", "attached", "held_by"},
                     std::move(vecRows));
  fputs((stOptions.bJson ? stDocument.AsJson() : stDocument.AsText()).c_str(), stdout);
  return EXIT_FINE;
}
