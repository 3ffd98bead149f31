// A long action's request as bytes, and bytes as text.
//
//   serialize_10, parse_10     a method's name and ten parameters of everyday length, from an
//                              ordered multimap of strings to one buffer and back into a new one
//   encode_<size>, decode_<size>   base64 in lines of 64 characters
//
// Every contestant starts from and ends with objects of its own: std::string for bytes and text.
// JSON here could not carry arbitrary bytes; it stands for what is often taken all the same.

#include <benchmark/benchmark.h>
#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/evp.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <Poco/Base64Decoder.h>
#include <Poco/Base64Encoder.h>

#include <algorithm>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/archive/iterators/base64_from_binary.hpp>
#include <boost/archive/iterators/insert_linebreaks.hpp>
#include <boost/archive/iterators/transform_width.hpp>
#include <boost/serialization/map.hpp>
#include <boost/serialization/string.hpp>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <msgpack.hpp>
#include <random>
#include <sstream>
#include <string>

#include "cpu_time.h"
#include "long_action_util.h"
#include "ratio_reporter.h"

namespace {

typedef std::multimap<std::string, std::string> Params_t;

const char METHOD[] = "SaveTables";
const Params_t PARAMS = {
    {"callback", "http://127.0.0.1:8080/done"},
    {"checksum", "crc32"},
    {"compress", "1"},
    {"directory", "/var/lib/server/tables"},
    {"format", "binary"},
    {"generation", "184467"},
    {"path", "tables-20240229.dump"},
    {"priority", "10"},
    {"shard", "7"},
    {"timeout", "3600"},
};

[[noreturn]] void Fail(const char* pWhat) {
  fprintf(stderr, "%s\n", pWhat);
  exit(1);
}

// ---- Requests. Each contestant: Fill(), then Write() to bytes; Read() from bytes into a new one.

class Zelk : public LongActionMethod {
 public:
  void Fill() {
    Method(METHOD);
    m_mapParams = PARAMS;
  }
  std::string Write() const { return SerializeRequest(); }
  bool Read(const std::string& strBytes) {
    return ParseRequest(strBytes.data(), static_cast<unsigned int>(strBytes.size()));
  }
  bool Whole() const { return m_strMethod == METHOD && m_mapParams == PARAMS; }
};

struct Record {
  void Fill() {
    strMethod = METHOD;
    mapParams = PARAMS;
  }
  bool Whole() const { return strMethod == METHOD && mapParams == PARAMS; }

  template <class Archive>
  void serialize(Archive& stArchive, unsigned int /*iVersion*/) {
    stArchive& strMethod& mapParams;
  }

  std::string strMethod;
  Params_t mapParams;
};

struct Msgpack : Record {
  MSGPACK_DEFINE(strMethod, mapParams)

  std::string Write() const {
    StringSink stSink;
    msgpack::pack(stSink, *this);
    return std::move(stSink.strBytes);
  }
  bool Read(const std::string& strBytes) {
    msgpack::unpack(strBytes.data(), strBytes.size()).get().convert(*this);
    return true;
  }

 private:
  struct StringSink {
    void write(const char* pData, size_t iSize) { strBytes.append(pData, iSize); }
    std::string strBytes;
  };
};

struct BoostBinary : Record {
  std::string Write() const {
    std::ostringstream stStream;
    boost::archive::binary_oarchive stArchive(stStream, boost::archive::no_header);
    stArchive << static_cast<const Record&>(*this);
    return stStream.str();
  }
  bool Read(const std::string& strBytes) {
    std::istringstream stStream(strBytes);
    boost::archive::binary_iarchive stArchive(stStream, boost::archive::no_header);
    stArchive >> static_cast<Record&>(*this);
    return true;
  }
};

struct Rapidjson : Record {
  static void WriteText(rapidjson::Writer<rapidjson::StringBuffer>& stWriter,
                        const std::string& strText) {
    stWriter.String(strText.data(), static_cast<rapidjson::SizeType>(strText.size()));
  }
  // [method, key, value, key, value ...]: a JSON object knows no equal keys.
  std::string Write() const {
    rapidjson::StringBuffer stBuffer;
    rapidjson::Writer<rapidjson::StringBuffer> stWriter(stBuffer);
    stWriter.StartArray();
    WriteText(stWriter, strMethod);
    for (const auto& [strKey, strValue] : mapParams) {
      WriteText(stWriter, strKey);
      WriteText(stWriter, strValue);
    }
    stWriter.EndArray();
    return std::string(stBuffer.GetString(), stBuffer.GetSize());
  }
  bool Read(const std::string& strBytes) {
    rapidjson::Document stDocument;
    if (stDocument.Parse(strBytes.data(), strBytes.size()).HasParseError()) {
      return false;
    }
    const auto& stArray = stDocument.GetArray();
    strMethod.assign(stArray[0].GetString(), stArray[0].GetStringLength());
    for (rapidjson::SizeType i = 1; i + 1 < stArray.Size(); i += 2) {
      mapParams.emplace_hint(
          mapParams.end(), std::string(stArray[i].GetString(), stArray[i].GetStringLength()),
          std::string(stArray[i + 1].GetString(), stArray[i + 1].GetStringLength()));
    }
    return true;
  }
};

template <class Request>
void Serialize(benchmark::State& stState) {
  Request stRequest;
  stRequest.Fill();
  MeasureCpu(stState, 1, [&] { benchmark::DoNotOptimize(stRequest.Write()); });
}

template <class Request>
void Parse(benchmark::State& stState) {
  Request stSource;
  stSource.Fill();
  const std::string strBytes = stSource.Write();
  Request stCopy;
  if (!stCopy.Read(strBytes) || !stCopy.Whole()) {
    Fail("a request does not survive");
  }
  MeasureCpu(stState, 1, [&] {
    Request stRequest;
    benchmark::DoNotOptimize(stRequest.Read(strBytes));
  });
}

template <typename... Arguments>
void Case(const std::string& strName, Arguments... args) {
  benchmark::RegisterBenchmark(strName.c_str(), args...)->MinTime(0.1);
}

template <class Request>
void RegisterRequest(const std::string& strContestant) {
  Case("serialize_10/" + strContestant, Serialize<Request>);
  Case("parse_10/" + strContestant, Parse<Request>);
}

// ---- Text.

struct FreeChain {
  void operator()(BIO* pChain) const { BIO_free_all(pChain); }
};

std::string EncodeByBio(const std::string& strBytes) {
  const std::unique_ptr<BIO, FreeChain> pChain(
      BIO_push(BIO_new(BIO_f_base64()), BIO_new(BIO_s_mem())));
  BIO_write(pChain.get(), strBytes.data(), static_cast<int>(strBytes.size()));
  BIO_flush(pChain.get());
  BUF_MEM* pMemory = nullptr;
  BIO_get_mem_ptr(pChain.get(), &pMemory);
  return std::string(pMemory->data, pMemory->length - 1);
}

struct FreeContext {
  void operator()(EVP_ENCODE_CTX* pContext) const { EVP_ENCODE_CTX_free(pContext); }
};
typedef std::unique_ptr<EVP_ENCODE_CTX, FreeContext> Context_t;

unsigned char* Bytes(std::string& strText) {
  return reinterpret_cast<unsigned char*>(strText.data());
}
const unsigned char* Bytes(const std::string& strText) {
  return reinterpret_cast<const unsigned char*>(strText.data());
}

std::string EncodeByContext(const std::string& strBytes) {
  const Context_t pContext(EVP_ENCODE_CTX_new());
  std::string strText(strBytes.size() / 48 * 65 + 70, '\0');
  int iSize = 0;
  int iRest = 0;
  EVP_EncodeInit(pContext.get());
  EVP_EncodeUpdate(pContext.get(), Bytes(strText), &iSize, Bytes(strBytes),
                   static_cast<int>(strBytes.size()));
  EVP_EncodeFinal(pContext.get(), Bytes(strText) + iSize, &iRest);
  strText.resize(static_cast<size_t>(iSize + iRest - 1));
  return strText;
}

std::string DecodeByContext(const std::string& strText) {
  const Context_t pContext(EVP_ENCODE_CTX_new());
  std::string strBytes(strText.size() / 4 * 3 + 3, '\0');
  int iSize = 0;
  int iRest = 0;
  EVP_DecodeInit(pContext.get());
  EVP_DecodeUpdate(pContext.get(), Bytes(strBytes), &iSize, Bytes(strText),
                   static_cast<int>(strText.size()));
  EVP_DecodeFinal(pContext.get(), Bytes(strBytes) + iSize, &iRest);
  strBytes.resize(static_cast<size_t>(iSize + iRest));
  return strBytes;
}

std::string EncodeByPoco(const std::string& strBytes) {
  std::ostringstream stStream;
  Poco::Base64Encoder stEncoder(stStream);
  stEncoder.rdbuf()->setLineLength(64);
  stEncoder.write(strBytes.data(), static_cast<std::streamsize>(strBytes.size()));
  stEncoder.close();
  return stStream.str();
}

std::string DecodeByPoco(const std::string& strText) {
  std::istringstream stStream(strText);
  Poco::Base64Decoder stDecoder(stStream);
  return std::string(std::istreambuf_iterator<char>(stDecoder), {});
}

std::string EncodeByBoost(const std::string& strBytes) {
  using boost::archive::iterators::base64_from_binary;
  using boost::archive::iterators::insert_linebreaks;
  using boost::archive::iterators::transform_width;
  typedef transform_width<std::string::const_iterator, 6, 8> Sextets_t;
  typedef insert_linebreaks<base64_from_binary<Sextets_t>, 64> Lines_t;
  std::string strText;
  strText.reserve(strBytes.size() / 48 * 65 + 70);
  strText.assign(Lines_t(strBytes.begin()), Lines_t(strBytes.end()));
  strText.append((3 - strBytes.size() % 3) % 3, '=');
  return strText;
}

typedef std::string (*Codec_t)(const std::string&);

// Poco ends lines with two characters.
std::string WithoutCR(std::string strText) {
  strText.erase(std::remove(strText.begin(), strText.end(), '\r'), strText.end());
  return strText;
}

void Convert(benchmark::State& stState, Codec_t fnCodec, const std::string& strIn,
             const std::string& strOut) {
  if (WithoutCR(fnCodec(strIn)) != WithoutCR(strOut)) {
    Fail("a codec disagrees");
  }
  MeasureCpu(stState, 1, [&] { benchmark::DoNotOptimize(fnCodec(strIn)); });
}

void RegisterCodecs(const std::string& strSize, size_t iSize) {
  std::mt19937 stRandom(1);
  std::string strBytes(iSize, '\0');
  for (char& cByte : strBytes) {
    cByte = static_cast<char>(stRandom());
  }
  const std::string strText = LongActionMethod::Encode(strBytes);
  const std::pair<const char*, Codec_t> szEncoders[] = {{"zelk", LongActionMethod::Encode},
                                                        {"libcrypto_bio", EncodeByBio},
                                                        {"libcrypto_context", EncodeByContext},
                                                        {"poco", EncodeByPoco},
                                                        {"boost_iterators", EncodeByBoost}};
  for (const auto& [pName, fnCodec] : szEncoders) {
    Case("encode_" + strSize + "/" + pName, Convert, fnCodec, strBytes, strText);
  }
  const std::pair<const char*, Codec_t> szDecoders[] = {{"zelk", LongActionMethod::Decode},
                                                        {"libcrypto_context", DecodeByContext},
                                                        {"poco", DecodeByPoco}};
  for (const auto& [pName, fnCodec] : szDecoders) {
    Case("decode_" + strSize + "/" + pName, Convert, fnCodec, strText, strBytes);
  }
}

}  // namespace

int main(int argc, char** argv) {
  RegisterRequest<Zelk>("zelk");
  RegisterRequest<Msgpack>("msgpack");
  RegisterRequest<BoostBinary>("boost_serialization");
  RegisterRequest<Rapidjson>("rapidjson");
  RegisterCodecs("200", 200);
  RegisterCodecs("64KiB", 65536);
  return RunWithRatios(argc, argv);
}
