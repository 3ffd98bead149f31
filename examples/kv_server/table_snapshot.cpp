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
    if (m_dqPieces.empty() || m_dqPieces.back().size() >= PIECE_SIZE) {
      m_dqPieces.emplace_back();
    }
    AppendDumpEntry(m_dqPieces.back(), strKey, stValue);
    ++m_iKeys;
  });
}

void TableSnapshot::Advance(size_t iBytes) {
  const size_t iEnough = WaitingBytes() + iBytes;
  for (uint64_t i = 0; i < EMPTY_BUCKETS && !Whole() && WaitingBytes() < iEnough; ++i) {
    Keep(m_iNext++);
  }
  if (Whole()) {
    m_stStore.SetSnapshot(nullptr);
  }
}

void TableSnapshot::Abandon() {
  m_stStore.SetSnapshot(nullptr);
  m_dqPieces.clear();
}

// All pieces but the last one have at least the size of one.
size_t TableSnapshot::WaitingBytes() const {
  return m_dqPieces.empty() ? 0 : (m_dqPieces.size() - 1) * PIECE_SIZE + m_dqPieces.back().size();
}
