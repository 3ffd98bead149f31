// A table in a segment whose bytes others have written: nothing outside of it is touched, and every
// operation ends.
//
// The first bytes choose the segment: an empty one, or a sound table with some entries; then words
// are overwritten and operations done as the input says.

#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "fuzz_segment.h"
#include "hash_map.h"

namespace {

const uint64_t HEAD = 4194384;
const uint64_t RESERVED = 1024;
const uint64_t BLOCKS = HEAD + RESERVED;
const uint64_t LISTS = 80;
const size_t PAGE = 4096;

const char* const KEYS[] = {"", "a", "b", "key", "fourteen chars", "a key of 20 characters"};
const size_t SIZES[] = {0, 1, 8, 40, 200, 3000, 70000, 4194300};

// Words that decide over what is read and written: the heap's header with the lists of small
// blocks, the table's head with its buckets, the blocks.
const std::vector<uint64_t>& Places() {
  static const std::vector<uint64_t> s_vecPlaces = {0, HEAD, BLOCKS, LISTS};
  return s_vecPlaces;
}

const char* KeyOf(FuzzInput& stInput) {
  return KEYS[stInput.Take<uint8_t>() % (sizeof(KEYS) / sizeof(KEYS[0]))];
}

void Look(const HashItem_t& stItem) {
  ReadBytes(stItem.pValue, stItem.iValueSize);
  if (stItem.pKey != nullptr) {
    ReadBytes(stItem.pKey, strlen(stItem.pKey) + 1);
  }
}

void Iterate(HashMap& stMap, HashMap::iterator it, size_t iMost) {
  size_t iSteps = 0;
  for (; it != stMap.end(); ++it) {
    Look(*it);
    Require(++iSteps <= iMost);
  }
}

void Fill(HashMap& stMap) {
  for (const char* pKey : KEYS) {
    stMap.Set(pKey, pKey);
  }
  stMap.Set("number", uint64_t{1});
  stMap.Set("gone", "a value whose block is free");
  stMap.Delete("gone");
}

void Set(HashMap& stMap, FuzzInput& stInput) {
  static const std::string s_strValue(4194304, 'v');
  const char* pKey = KeyOf(stInput);
  const size_t iSize = SIZES[stInput.Take<uint8_t>() % (sizeof(SIZES) / sizeof(SIZES[0]))];
  stMap.Set(pKey, s_strValue.data(), static_cast<uint32_t>(iSize));
}

void Operate(HashMap& stMap, FuzzInput& stInput, const FuzzSegment& stSegment, int iNull) {
  const size_t iMost = stSegment.Size() / 32 + 60 * 1000;
  switch (stInput.Take<uint8_t>() % 10) {
    case 0:
      return Look(stMap.Get(KeyOf(stInput)));
    case 1:
      stMap.GetInt(KeyOf(stInput), 0);
      stMap.GetString(KeyOf(stInput));
      return;
    case 2:
      return Set(stMap, stInput);
    case 3:
      stMap.Delete(KeyOf(stInput));
      return;
    case 4:
      return Iterate(stMap, stMap.begin(), iMost);
    case 5:
      return Iterate(stMap, stMap.find(KeyOf(stInput)), iMost);
    case 6:
      stMap.GetStat();
      return;
    case 7:
      return stInput.Take<uint8_t>() % 16 == 0 ? stMap.Dump(iNull) : void();
    default:
      OverwriteWord(stInput, Places(), BLOCKS);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize) {
  static const int s_iNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
  RESERVED_SIZE = RESERVED;
  FuzzInput stInput(pData, iSize);
  const FuzzSegment stSegment;
  const auto iShape = stInput.Take<uint8_t>();
  const size_t iBytes = HEAD + PAGE - HEAD % PAGE + PAGE * (iShape / 8U % 4);
  const uint64_t iBuckets = iShape % 4 == 0 ? 1 : iShape % 8 * 8 - 3;
  HashMap stOwner;
  Require(stOwner.Attach(1, iBytes, iBuckets, false));
  if (iShape < 192) {
    Fill(stOwner);
  }
  for (size_t i = stInput.Take<uint8_t>() % 8; i > 0; --i) {
    OverwriteWord(stInput, Places(), BLOCKS);
  }
  HashMap stMap;
  const bool bAttached = stMap.Attach(1, 0, iBuckets, false);
  HashMap& stUsed = bAttached && iShape % 2 == 0 ? stMap : stOwner;
  while (!stInput.IsEmpty()) {
    Operate(stUsed, stInput, stSegment, s_iNull);
  }
  return 0;
}
