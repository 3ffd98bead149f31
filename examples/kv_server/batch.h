#ifndef KV_SERVER_BATCH_H
#define KV_SERVER_BATCH_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

// What gateway and workers say to each other through their queues.
//
// A request batch is one record: a RequestHead_t, then iRuns runs. A run is a RunHead_t and its
// commands, consecutive commands of one client whose replies go back as one piece. A command is a
// CommandHead_t, the lengths of its arguments (4 bytes each, name not counted) and their bytes. A
// last argument of LARGE_VALUE bytes or more is not in the batch: it is a record of its own behind
// it, in the order of the commands, so that it is copied but once.
//
// A reply record is a ReplyHead_t, then iPieces pieces, each a PieceHead_t and its bytes, in the
// order of the batch's runs. A run whose replies are too long for a record goes on in the next one.
//
// A worker may die between a batch and its values. What its successor then finds in front are
// values, which a client has chosen: a mark that no client knows tells the next batch from them.
//
// All of it is in the machine's byte order and unaligned.

struct RequestHead_t {
  uint64_t iMark;    // of this server's queues: only a batch starts with it
  uint64_t iLife;    // which gateway process asks; an answer to another one is not for us
  uint64_t iNumber;  // of the batch, from 1
  uint32_t iRuns;
  uint32_t iValues;  // records behind this one
  uint64_t iCpu;     // where the gateway runs
};

struct RunHead_t {
  uint32_t iCommands;
};

struct CommandHead_t {
  uint16_t iCommand;  // CommandId_t
  uint16_t iValueFollows;
  uint32_t iArguments;
};

enum ReplyKind_t : uint32_t {
  REPLY_HELLO,    // a worker has started; life and number mean nothing
  REPLY_ANSWERS,  // answers to the batch of that life and number
};

struct ReplyHead_t {
  uint64_t iLife;
  uint64_t iNumber;
  uint32_t iKind;
  uint32_t iPieces;
};

enum PieceFlag_t : uint32_t {
  PIECE_GOES_ON = 1,  // the run's next piece follows
  PIECE_TORN = 2,     // it ends inside a reply
};

struct PieceHead_t {
  uint32_t iSize;
  uint32_t iCommands;  // whose replies end in this piece
  uint32_t iFlags;
};

const size_t LARGE_VALUE = 16 << 10;

// A record is closed when it has reached this size; what is added to it last may make it longer by
// one command or reply.
inline size_t RecordLimit(uint64_t iQueueBytes) {
  return std::min<size_t>(256 << 10, iQueueBytes / 8);
}

typedef std::vector<std::string_view> Arguments_t;

template <typename T>
void PatchRecord(std::string& strOut, size_t iOffset, const T& stRecord) {
  memcpy(&strOut[iOffset], &stRecord, sizeof(stRecord));
}

template <typename T>
void AppendRecord(std::string& strOut, const T& stRecord) {
  strOut.append(reinterpret_cast<const char*>(&stRecord), sizeof(stRecord));
}

// Reads a batch or a reply from front to back. Reading past the end gives zeros and turns Good()
// false, so that a torn or foreign record is noticed at the end instead of at each step.
class RecordReader {
 public:
  explicit RecordReader(std::string_view strRecord) : m_strRest(strRecord) {}

  template <typename T>
  T Take() {
    T stRecord{};
    const std::string_view strBytes = TakeBytes(sizeof(T));
    if (m_bGood) {
      memcpy(&stRecord, strBytes.data(), sizeof(T));
    }
    return stRecord;
  }

  std::string_view TakeBytes(size_t iSize) {
    if (iSize > m_strRest.size()) {
      m_bGood = false;
      m_strRest = {};
      return {};
    }
    const std::string_view strBytes = m_strRest.substr(0, iSize);
    m_strRest.remove_prefix(iSize);
    return strBytes;
  }

  bool Good() const { return m_bGood; }

 private:
  std::string_view m_strRest;
  bool m_bGood = true;
};

// Appends a command whose arguments (without the name) are vecArguments[iFirst...]. True when its
// last argument was left out and has to follow as a record of its own.
bool AppendCommand(std::string& strOut, uint16_t iCommand, const Arguments_t& vecArguments,
                   size_t iFirst);

#endif
