#include "verify.h"

#include <algorithm>
#include <cstdio>
#include <set>

#include "document.h"
#include "process_view.h"
#include "ring_check.h"
#include "segment_check.h"
#include "segment_status.h"

namespace {

const uint64_t LIVE_LOOKS = 10;

void Note(std::vector<std::string>& vecNotes, const char* pName, int64_t iExcess) {
  if (iExcess != 0) {
    vecNotes.push_back(std::string(pName) + " is off by " + std::to_string(iExcess));
  }
}

std::vector<std::string> Notes(const SegmentReport_t& stReport, Format_t eFormat) {
  std::vector<std::string> vecNotes;
  Note(vecNotes, "iBlockCount", stReport.iBlockCountExcess);
  Note(vecNotes, "iManagedSize", stReport.iManagedSizeExcess);
  if (eFormat == FORMAT_TABLE) {
    Note(vecNotes, "iObjectCount", stReport.iObjectCountExcess);
    Note(vecNotes, "iTotalKeySize", stReport.iTotalKeySizeExcess);
    Note(vecNotes, "iTotalValueSize", stReport.iTotalValueSizeExcess);
    Note(vecNotes, "the sum of the buckets' iSize", stReport.iBucketSizeExcess);
    Note(vecNotes, "blocks on no list and no chain", static_cast<int64_t>(stReport.OtherBlocks()));
  }
  return vecNotes;
}

void VerifyRing(const SegmentView& stView, Verification_t& stResult) {
  const RingReport_t stReport = CheckRing(stView);
  stResult.iLooks = 1;
  stResult.vecFaults = stReport.vecFaults;
  if (!stReport.vecFaults.empty()) {
    stResult.eVerdict = VERDICT_NOT_SOUND;
  } else if (stReport.bStable) {
    stResult.eVerdict = VERDICT_SOUND;
  }
}

void KeepSeen(std::vector<std::string>& vecKept, const std::vector<std::string>& vecSeen) {
  const std::set<std::string> setSeen(vecSeen.begin(), vecSeen.end());
  const auto fnGone = [&](const std::string& strText) { return setSeen.count(strText) == 0; };
  vecKept.erase(std::remove_if(vecKept.begin(), vecKept.end(), fnGone), vecKept.end());
}

void VerifyHeap(const SegmentView& stView, Verification_t& stResult) {
  const uint64_t iLooks = stView.IsLive() ? LIVE_LOOKS : 1;
  for (uint64_t i = 0; i < iLooks; ++i) {
    stView.Forget();
    const SegmentReport_t stReport =
        stResult.eFormat == FORMAT_TABLE ? CheckTable(stView) : CheckHeap(stView);
    const std::vector<std::string> vecNotes = Notes(stReport, stResult.eFormat);
    if (i == 0) {
      stResult.vecFaults = stReport.vecFaults;
      stResult.vecNotes = vecNotes;
    }
    KeepSeen(stResult.vecFaults, stReport.vecFaults);
    KeepSeen(stResult.vecNotes, vecNotes);
    stResult.iLooks = i + 1;
    if (stResult.vecFaults.empty() && stResult.vecNotes.empty()) {
      break;
    }
  }
  stResult.eVerdict = stResult.vecFaults.empty() ? VERDICT_SOUND : VERDICT_NOT_SOUND;
}

const char* VerdictText(Verdict_t eVerdict) {
  switch (eVerdict) {
    case VERDICT_SOUND:
      return "sound";
    case VERDICT_NOT_SOUND:
      return "not sound";
    default:
      return "no stable view";
  }
}

std::vector<Document::Row_t> Rows(const std::vector<std::string>& vecTexts, uint64_t iLimit) {
  std::vector<Document::Row_t> vecRows;
  for (size_t i = 0; i < vecTexts.size() && i < iLimit; ++i) {
    vecRows.push_back({vecTexts[i]});
  }
  return vecRows;
}

void Print(const Options_t& stOptions, const std::string& strName, const SegmentStatus_t& stStatus,
           const Verification_t& stResult) {
  Document stDocument;
  stDocument.Add("segment", strName);
  stDocument.Add("id", stStatus.iId);
  stDocument.Add("key", KeyText(stStatus.iKey));
  stDocument.Add("format", FormatName(stResult.eFormat));
  stDocument.Add("verdict", VerdictText(stResult.eVerdict));
  stDocument.Add("looks", stResult.iLooks);
  stDocument.Add("faults", uint64_t{stResult.vecFaults.size()});
  stDocument.AddList("first_faults", {"fault"}, Rows(stResult.vecFaults, stOptions.iLimit));
  stDocument.AddList("notes", {"note"}, Rows(stResult.vecNotes, stOptions.iLimit));
  fputs((stOptions.bJson ? stDocument.AsJson() : stDocument.AsText() + "\n").c_str(), stdout);
}

int VerifyOne(const Options_t& stOptions, const std::string& strName) {
  SegmentStatus_t stStatus;
  std::string strError = FindSegment(strName, stStatus);
  if (!strError.empty()) {
    fprintf(stderr, "zelk-inspect: %s\n", strError.c_str());
    return EXIT_NOT_READABLE;
  }
  const auto pView = OpenSegment(stStatus, &strError);
  const Verification_t stResult = pView != nullptr ? Verify(*pView) : Verification_t();
  strError = pView != nullptr ? pView->Finish() : strError;
  if (strError.empty() && stResult.eFormat == FORMAT_NONE) {
    strError = "not one of our formats";
  }
  if (!strError.empty()) {
    fprintf(stderr, "zelk-inspect: %s: %s\n", strName.c_str(), strError.c_str());
    return EXIT_NOT_READABLE;
  }
  Print(stOptions, strName, stStatus, stResult);
  return stResult.eVerdict == VERDICT_SOUND       ? EXIT_FINE
         : stResult.eVerdict == VERDICT_NOT_SOUND ? EXIT_NOT_SOUND
                                                  : EXIT_NOT_READABLE;
}

}  // namespace

Verification_t Verify(const SegmentView& stView) {
  Verification_t stResult;
  stResult.eFormat = FormatOf(stView, true);
  if (stResult.eFormat == FORMAT_RING) {
    VerifyRing(stView, stResult);
  } else if (stResult.eFormat != FORMAT_NONE) {
    VerifyHeap(stView, stResult);
  }
  return stResult;
}

int RunVerify(const Options_t& stOptions) {
  int iResult = EXIT_FINE;
  for (const std::string& strName : stOptions.vecNames) {
    const int iOne = VerifyOne(stOptions, strName);
    iResult = iOne == EXIT_FINE || iResult == EXIT_NOT_SOUND ? iResult : iOne;
  }
  return iResult;
}
