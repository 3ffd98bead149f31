#include "look.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "describe.h"
#include "log_file.h"
#include "process_view.h"
#include "segment_format.h"
#include "segment_holders.h"
#include "segment_status.h"

namespace {

typedef std::chrono::steady_clock Clock_t;

const unsigned int ATTEMPTS = 3;  // a holder may leave while it is read
const std::chrono::milliseconds PERIOD(1);
const char CLEAR_SCREEN[] = "\033[H\033[2J";

volatile sig_atomic_t g_bStop = 0;

void Stop(int /*iSignal*/) { g_bStop = 1; }

double SecondsSince(Clock_t::time_point stBegin) {
  return std::chrono::duration<double>(Clock_t::now() - stBegin).count();
}

// One thing that is looked at, and what the last look has seen of it.
class Subject {
 public:
  Subject(const Options_t& stOptions, const std::string& strName)
      : m_stOptions(stOptions), m_strName(strName) {}

  // Empty, or why it can not be looked at.
  std::string Look(Document& stDocument);
  // Between two looks: a ring says only where reader and writer are, not how often they have gone
  // round, so it is sampled all the time.
  void BeginSampling();
  void Sample();
  void EndSampling();

 private:
  std::string LookAtSegment(Document& stDocument);
  void AddStatus(const SegmentStatus_t& stStatus, const Holders_t& stHolders,
                 Document& stDocument) const;
  std::string Describe(const SegmentView& stView, Document& stDocument, Figures_t& mapFigures);
  std::string CheckFormat(const SegmentView& stView) const;
  void AddRatesTo(Document& stDocument, const Figures_t& mapFigures);

  const Options_t& m_stOptions;
  const std::string m_strName;
  bool m_bFirst = true;
  Clock_t::time_point m_stBefore;
  Figures_t m_mapBefore;
  std::unique_ptr<SegmentView> m_pSampled;
  RingRate m_stRingRate;
  bool m_bSampled = false;  // the whole time
};

std::string Subject::CheckFormat(const SegmentView& stView) const {
  const Format_t eFormat = FormatOf(stView, true);
  const bool bHeap = eFormat == FORMAT_HEAP || eFormat == FORMAT_TABLE;
  if ((m_stOptions.strCommand == "queue" && eFormat == FORMAT_RING) ||
      (m_stOptions.strCommand == "heap" && bHeap) ||
      (m_stOptions.strCommand == "table" && eFormat == FORMAT_TABLE)) {
    return {};
  }
  return eFormat == FORMAT_NONE ? "not one of our formats"
                                : std::string("it is a ") + FormatName(eFormat);
}

void Subject::AddStatus(const SegmentStatus_t& stStatus, const Holders_t& stHolders,
                        Document& stDocument) const {
  stDocument.Add(m_stOptions.strCommand, m_strName);
  stDocument.Add("id", stStatus.iId);
  stDocument.Add("key", KeyText(stStatus.iKey));
  stDocument.Add("segment_size", stStatus.iSize);
  stDocument.Add("attached", stStatus.iAttached);
  stDocument.Add("held_by", HolderText(stHolders, stStatus.iAttached));
}

std::string Subject::Describe(const SegmentView& stView, Document& stDocument,
                              Figures_t& mapFigures) {
  std::string strError = stView.Finish();
  if (!strError.empty() || !(strError = CheckFormat(stView)).empty()) {
    return strError;
  }
  if (m_stOptions.strCommand == "queue") {
    DescribeQueue(stView, m_stOptions, stDocument);
  } else if (m_stOptions.strCommand == "heap") {
    DescribeHeap(stView, m_stOptions, stDocument, mapFigures);
  } else {
    DescribeTable(stView, m_stOptions, stDocument, mapFigures);
  }
  return stView.Finish();
}

std::string Subject::LookAtSegment(Document& stDocument) {
  std::string strError;
  for (unsigned int i = 0; i < ATTEMPTS; ++i) {
    SegmentStatus_t stStatus;
    stDocument = Document();
    Figures_t mapFigures;
    strError = FindSegment(m_strName, stStatus);
    if (!strError.empty()) {
      return strError;
    }
    const Holders_t stHolders = FindHolders(stStatus.iId);
    const auto pView = OpenSegment(stStatus, &strError, &stHolders);
    if (pView != nullptr) {
      AddStatus(stStatus, stHolders, stDocument);
      strError = Describe(*pView, stDocument, mapFigures);
    }
    if (strError.empty()) {
      AddRatesTo(stDocument, mapFigures);
      return {};
    }
  }
  return m_strName + ": " + strError;
}

void Subject::AddRatesTo(Document& stDocument, const Figures_t& mapFigures) {
  const double fSeconds = SecondsSince(m_stBefore);
  if (!m_bFirst) {
    AddRates(m_mapBefore, mapFigures, fSeconds, stDocument);
    if (m_bSampled) {
      m_stRingRate.AddTo(stDocument, fSeconds);
    }
  }
  m_bFirst = false;
  m_mapBefore = mapFigures;
  m_stBefore = Clock_t::now();
}

std::string Subject::Look(Document& stDocument) {
  if (m_stOptions.strCommand != "log") {
    return LookAtSegment(stDocument);
  }
  Figures_t mapFigures;
  std::string strError = DescribeLog(m_strName, m_stOptions, stDocument, mapFigures);
  if (strError.empty()) {
    AddRatesTo(stDocument, mapFigures);
  }
  return strError;
}

void Subject::BeginSampling() {
  SegmentStatus_t stStatus;
  std::string strError;
  m_stRingRate = RingRate();
  if (m_stOptions.strCommand == "queue" && FindSegment(m_strName, stStatus).empty() &&
      stStatus.iAttached > 0) {
    m_pSampled = OpenSegment(stStatus, &strError);
  }
}

void Subject::Sample() {
  if (m_pSampled != nullptr) {
    m_stRingRate.Look(*m_pSampled);
  }
}

void Subject::EndSampling() {
  Sample();
  m_bSampled = m_pSampled != nullptr && m_pSampled->Finish().empty();
  m_pSampled.reset();
}

typedef std::vector<std::unique_ptr<Subject>> Subjects_t;

void Wait(const Subjects_t& vecSubjects, double fSeconds) {
  const auto stBegin = Clock_t::now();
  for (const auto& pSubject : vecSubjects) {
    pSubject->BeginSampling();
  }
  while (g_bStop == 0 && SecondsSince(stBegin) < fSeconds) {
    for (const auto& pSubject : vecSubjects) {
      pSubject->Sample();
    }
    std::this_thread::sleep_for(PERIOD);
  }
  for (const auto& pSubject : vecSubjects) {
    pSubject->EndSampling();
  }
}

// Prints what all of them look like now; the exit code.
int PrintLook(const Options_t& stOptions, const Subjects_t& vecSubjects) {
  int iResult = EXIT_FINE;
  std::string strText;
  std::string strErrors;  // shown last: a terminal is cleared first
  for (const auto& pSubject : vecSubjects) {
    Document stDocument;
    const std::string strError = pSubject->Look(stDocument);
    if (!strError.empty()) {
      strErrors += "zelk-inspect: " + strError + "\n";
      iResult = EXIT_NOT_READABLE;
      continue;
    }
    strText +=
        stOptions.bJson ? stDocument.AsJson() : (strText.empty() ? "" : "\n") + stDocument.AsText();
  }
  if (stOptions.fWatch && !stOptions.bJson && isatty(STDOUT_FILENO) == 1) {
    fputs(CLEAR_SCREEN, stdout);
  }
  fputs(strText.c_str(), stdout);
  if (fflush(stdout) != 0) {
    iResult = EXIT_NOT_WRITTEN;  // whoever watches has gone
  }
  fputs(strErrors.c_str(), stderr);
  return iResult;
}

}  // namespace

int RunLook(const Options_t& stOptions) {
  Subjects_t vecSubjects;
  for (const std::string& strName : stOptions.vecNames) {
    vecSubjects.push_back(std::make_unique<Subject>(stOptions, strName));
  }
  if (!stOptions.fWatch) {
    if (stOptions.fRate > 0) {
      for (const auto& pSubject : vecSubjects) {
        Document stIgnored;
        pSubject->Look(stIgnored);
      }
      Wait(vecSubjects, stOptions.fRate);
    }
    return PrintLook(stOptions, vecSubjects);
  }
  signal(SIGINT, Stop);
  signal(SIGTERM, Stop);
  int iResult = PrintLook(stOptions, vecSubjects);
  for (uint64_t i = 1; i != stOptions.iCount && g_bStop == 0 && iResult == EXIT_FINE; ++i) {
    Wait(vecSubjects, *stOptions.fWatch);
    if (!stOptions.bJson && g_bStop == 0) {
      puts("");
    }
    iResult = g_bStop != 0 ? EXIT_FINE : PrintLook(stOptions, vecSubjects);
  }
  return iResult;
}
