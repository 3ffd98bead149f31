#include "table_snapshot.h"

#include "dump_file.h"
#include "key_store.h"

namespace {

const size_t PIECE_SIZE = 64 << 10;    // a new piece is begun behind one of this size
const uint64_t EMPTY_BUCKETS = 65536;  // looked at in one call: a sparse table is walked in slices

}  // namespace

TableSnapshot::TableSnapshot(KeyStore& stStore)
    : m_stStore(stStore), m_iTime(stStore.Now()), m_vecKept(stStore.Buckets()) {
  stStore.SetSnapshot(this);
}

TableSnapshot::~TableSnapshot() { m_stStore.SetSnapshot(nullptr); }

void TableSnapshot::Keep(uint64_t iBucket) {
  if (m_vecKept[iBucket]) {
    return;
  }
  m_vecKept[iBucket] = true;
  m_stStore.VisitBucket(iBucket, [this](std::string_view strKey, const Value_t& stValue) {
    if (stValue.iExpireAt != KeyStore::NEVER && stValue.iExpireAt <= m_iTime) {
      return;
    }
    std::string& strPiece = Back();
    const size_t iBefore = strPiece.size();
    AppendDumpEntry(strPiece, strKey, stValue);
    m_iWaiting += strPiece.size() - iBefore;
    ++m_iKeys;
  });
}

std::string& TableSnapshot::Back() {
  if (m_dqPieces.empty() || m_dqPieces.back().size() >= PIECE_SIZE) {
    m_dqPieces.emplace_back();
  }
  return m_dqPieces.back();
}

void TableSnapshot::Advance(size_t iBytes) {
  const size_t iEnough = m_iWaiting + iBytes;
  for (uint64_t i = 0;
       !m_bWhole && i < EMPTY_BUCKETS && m_iNext < m_vecKept.size() && m_iWaiting < iEnough; ++i) {
    Keep(m_iNext++);
  }
  if (m_iNext == m_vecKept.size() && !m_bWhole) {
    AppendEnd();
  }
}

void TableSnapshot::AppendEnd() {
  m_bWhole = true;
  m_stStore.SetSnapshot(nullptr);
  const DumpEntry_t stEnd{DUMP_END, 0, m_iKeys};
  Back().append(reinterpret_cast<const char*>(&stEnd), sizeof(stEnd));
  m_iWaiting += sizeof(stEnd);
}

void TableSnapshot::Abandon() {
  m_bWhole = true;
  m_stStore.SetSnapshot(nullptr);
  m_dqPieces.clear();
  m_iTaken = 0;
  m_iWaiting = 0;
}

std::string_view TableSnapshot::Front() const {
  if (m_dqPieces.empty()) {
    return {};
  }
  const std::string_view svFront = m_dqPieces.front();
  return svFront.substr(m_iTaken);
}

void TableSnapshot::Take(size_t iBytes) {
  m_iWaiting -= iBytes;
  m_iTaken += iBytes;
  if (m_iTaken == m_dqPieces.front().size()) {
    m_dqPieces.pop_front();
    m_iTaken = 0;
  }
}
