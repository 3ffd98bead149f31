// INI files with 1,000 and 100,000 keys, in sections of 100 keys that are not sorted.
//
//   load           read the file, per key
//   get            one value by section and key, keys in random order
//   get_variable   the same for a value with a reference to another key
//   include        read 5, 50 and 500 small files that one file names, per file
//
// SimpleIni compares case-sensitively, as ours does, and keeps one value a key; ours keeps several.
// Figures are CPU time. inih has a reader with a map on top of it, and its callback interface
// without any storage is the row "inih_no_storage". Each contestant is asked by the names that its
// interface takes, built beforehand, and the value's first character is read. POCO alone also
// expands references. Many lookups are measured, so that ours go through the index that is built
// meanwhile.

#include <INIReader.h>
#include <Poco/AutoPtr.h>
#include <Poco/Util/IniFileConfiguration.h>
#include <benchmark/benchmark.h>
#include <ini.h>
#include <unistd.h>

#include <algorithm>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "cpu_time.h"
#include "ini_config.h"
#include "ratio_reporter.h"

#define SI_CONVERT_ICU  // as the library of the Debian package is built
#include <SimpleIni.h>

namespace {

const size_t KEYS_A_SECTION = 100;

// The directory of all files, removed at the end of the program.
class Directory {
 public:
  Directory() {
    char szName[] = "/tmp/zelk_bench_XXXXXX";
    if (mkdtemp(szName) == nullptr) {
      abort();
    }
    m_strPath = szName;
  }
  ~Directory() { std::filesystem::remove_all(m_strPath); }
  std::string Write(const std::string& strName, const std::string& strText) const {
    std::ofstream(m_strPath + "/" + strName) << strText;
    return m_strPath + "/" + strName;
  }

 private:
  std::string m_strPath;
};

const Directory& Files() {
  static const Directory stDirectory;
  return stDirectory;
}

struct name_t {
  std::string strSection;
  std::string strKey;
  std::string strDotted;
};

// A file of so many keys, and its names in random order.
struct Document_t {
  explicit Document_t(size_t iKeys) {
    std::mt19937 stRandom(4711);
    std::string strPlain;
    std::string strZelk;
    std::string strPoco;
    for (size_t i = 0; i < iKeys; ++i) {
      const std::string strSection = "section_" + std::to_string(i / KEYS_A_SECTION);
      const std::string strKey = "k" + std::to_string(stRandom() % 1000) + "_" + std::to_string(i);
      const std::string strDotted = strSection + "." + strKey;
      vecNames.push_back({strSection, strKey, strDotted});
      const std::string strHeader = i % KEYS_A_SECTION == 0 ? "[" + strSection + "]\n" : "";
      const std::string strLine = strKey + " = value_of_key_" + std::to_string(i) + "\n";
      strPlain += strHeader + strLine;
      strZelk += strHeader + strLine + strKey + "_ref = before_@(" + strDotted + ")_behind\n";
      strPoco += strHeader + strLine + strKey + "_ref = before_${" + strDotted + "}_behind\n";
    }
    std::shuffle(vecNames.begin(), vecNames.end(), stRandom);
    const std::string strNumber = std::to_string(iKeys);
    strPath = Files().Write(strNumber + ".ini", strPlain);
    strZelkPath = Files().Write(strNumber + "_zelk.ini", strZelk);
    strPocoPath = Files().Write(strNumber + "_poco.ini", strPoco);
  }

  std::vector<name_t> vecNames;
  std::string strPath;
  // With a second key "..._ref" for each, whose value refers to it in the form of ours or of POCO.
  std::string strZelkPath;
  std::string strPocoPath;
};

const Document_t& Document(size_t iKeys) {
  static std::map<size_t, std::unique_ptr<Document_t>> mapDocuments;
  auto& pDocument = mapDocuments[iKeys];
  if (pDocument == nullptr) {
    pDocument = std::make_unique<Document_t>(iKeys);
  }
  return *pDocument;
}

class Zelk {
 public:
  explicit Zelk(const std::string& strPath) {
    if (m_stConfig.LoadFromFile(strPath.c_str()) != 0) {
      abort();
    }
  }
  char Get(const name_t& stName) const {
    return m_stConfig.GetValue(stName.strSection, stName.strKey)[0];
  }

 private:
  IniConfig m_stConfig;
};

class SimpleIni {
 public:
  explicit SimpleIni(const std::string& strPath) {
    if (m_stIni.LoadFile(strPath.c_str()) < 0) {
      abort();
    }
  }
  char Get(const name_t& stName) const {
    return m_stIni.GetValue(stName.strSection.c_str(), stName.strKey.c_str(), "")[0];
  }

 private:
  CSimpleIniCaseA m_stIni;
};

class Inih {
 public:
  explicit Inih(const std::string& strPath) : m_stReader(strPath) {
    if (m_stReader.ParseError() != 0) {
      abort();
    }
  }
  char Get(const name_t& stName) const {
    return m_stReader.Get(stName.strSection, stName.strKey, "")[0];
  }

 private:
  INIReader m_stReader;
};

class InihNoStorage {
 public:
  explicit InihNoStorage(const std::string& strPath) {
    size_t iLength = 0;
    const auto pHandler = [](void* pUser, const char*, const char* pKey, const char* pValue) {
      *static_cast<size_t*>(pUser) += static_cast<size_t>(pKey[0] + pValue[0]);
      return 1;
    };
    if (ini_parse(strPath.c_str(), pHandler, &iLength) != 0) {
      abort();
    }
    benchmark::DoNotOptimize(iLength);
  }
};

class Poco {
 public:
  explicit Poco(const std::string& strPath)
      : m_pConfig(new ::Poco::Util::IniFileConfiguration(strPath)) {}
  char Get(const name_t& stName) const { return m_pConfig->getString(stName.strDotted, " ")[0]; }

 private:
  ::Poco::AutoPtr<::Poco::Util::IniFileConfiguration> m_pConfig;
};

class PropertyTree {
 public:
  explicit PropertyTree(const std::string& strPath) {
    boost::property_tree::ini_parser::read_ini(strPath, m_stTree);
  }
  char Get(const name_t& stName) const { return m_stTree.get<std::string>(stName.strDotted)[0]; }

 private:
  boost::property_tree::ptree m_stTree;
};

template <class Reader>
void Load(benchmark::State& stState, size_t iKeys) {
  const std::string& strPath = Document(iKeys).strPath;
  double dCost = 0;
  for (auto stIteration : stState) {
    static_cast<void>(stIteration);
    const double dBegin = CpuNanoseconds();
    const auto pReader = std::make_unique<Reader>(strPath);
    benchmark::ClobberMemory();
    dCost += CpuNanoseconds() - dBegin;
  }
  ReportCpu(stState, dCost, iKeys);
}

// A reader that has loaded a file, kept for all cases that ask it.
template <class Reader>
const Reader& Loaded(const std::string& strPath) {
  static std::map<std::string, std::unique_ptr<Reader>> mapReaders;
  auto& pReader = mapReaders[strPath];
  if (pReader == nullptr) {
    pReader = std::make_unique<Reader>(strPath);
  }
  return *pReader;
}

template <class Reader>
void Ask(benchmark::State& stState, const std::string& strPath, const std::vector<name_t>& vecNames,
         char cFirst) {
  const Reader& stReader = Loaded<Reader>(strPath);
  size_t i = 0;
  MeasureCpu(stState, 1, [&] {
    if (stReader.Get(vecNames[i]) != cFirst) {
      stState.SkipWithError("wrong answer");
    }
    i = i + 1 == vecNames.size() ? 0 : i + 1;
  });
}

template <class Reader>
void Get(benchmark::State& stState, size_t iKeys) {
  Ask<Reader>(stState, Document(iKeys).strPath, Document(iKeys).vecNames, 'v');
}

template <class Reader>
void GetVariable(benchmark::State& stState, size_t iKeys, std::string Document_t::*pPath) {
  std::vector<name_t> vecNames = Document(iKeys).vecNames;
  for (name_t& stName : vecNames) {
    stName.strKey += "_ref";
    stName.strDotted += "_ref";
  }
  Ask<Reader>(stState, Document(iKeys).*pPath, vecNames, 'b');
}

void Include(benchmark::State& stState, size_t iFiles) {
  const std::string strNumber = std::to_string(iFiles);
  std::string strTop;
  for (size_t i = 0; i < iFiles; ++i) {
    const std::string strName = "part_" + strNumber + "_" + std::to_string(i) + ".ini";
    strTop +=
        "include = " + Files().Write(strName, "[part]\nkey_" + std::to_string(i) + " = 1\n") + "\n";
  }
  const std::string strPath = Files().Write("top_" + strNumber + ".ini", strTop);
  MeasureCpu(stState, iFiles, [&] {
    IniConfig stConfig;
    if (stConfig.LoadFromFile(strPath.c_str()) != 0 ||
        stConfig.AllItems().at("part").size() != iFiles) {
      stState.SkipWithError("wrong answer");
    }
  });
}

template <typename... Arguments>
void Case(const std::string& strName, Arguments... args) {
  benchmark::RegisterBenchmark(strName.c_str(), args...)->MinTime(0.1);
}

template <class Reader>
void RegisterReader(const std::string& strName) {
  for (const size_t iKeys : {size_t{1000}, size_t{100000}}) {
    const std::string strNumber = std::to_string(iKeys);
    Case("load_" + strNumber + "/" + strName, Load<Reader>, iKeys);
    Case("get_" + strNumber + "/" + strName, Get<Reader>, iKeys);
  }
}

void RegisterAll() {
  RegisterReader<Zelk>("zelk");
  RegisterReader<SimpleIni>("simpleini");
  RegisterReader<Inih>("inih");
  RegisterReader<Poco>("poco");
  RegisterReader<PropertyTree>("property_tree");
  for (const size_t iKeys : {size_t{1000}, size_t{100000}}) {
    const std::string strNumber = std::to_string(iKeys);
    Case("load_" + strNumber + "/inih_no_storage", Load<InihNoStorage>, iKeys);
    const std::string strOperation = "get_variable_" + strNumber;
    Case(strOperation + "/zelk", GetVariable<Zelk>, iKeys, &Document_t::strZelkPath);
    Case(strOperation + "/poco", GetVariable<Poco>, iKeys, &Document_t::strPocoPath);
  }
  for (const size_t iFiles : {size_t{5}, size_t{50}, size_t{500}}) {
    Case("include_" + std::to_string(iFiles) + "/zelk", Include, iFiles);
  }
}

}  // namespace

int main(int argc, char** argv) {
  RegisterAll();
  return RunWithRatios(argc, argv);
}
