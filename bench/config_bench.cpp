// What a process pays to read its XML configuration and to ask for a value.
//
// xml_load: a document in memory, from its text to the first lookup, and destroyed. POCO and
// Boost.PropertyTree keep a tree; libxml2_multimap takes the texts of a tree, as they are, into the
// same kind of map as ours. xmlParseMemory is the bare parse, with a tree that has no keys.
// xml_get: a text by its dotted key, keys at random. xml_get_variable: the same with one reference
// to another key; PropertyTree has none. std_multimap is the bare lookup and a copy.
// xml_includes: per file, many files of 20 keys that one pattern (glob) or one directive each
// (list) brings in, beside a bare parse of the same files into one map.
//
// Figures are CPU time of the caller, system calls included.

#include <Poco/AutoPtr.h>
#include <Poco/SAX/InputSource.h>
#include <Poco/Util/XMLConfiguration.h>
#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "config.h"
#include "cpu_time.h"
#include "ratio_reporter.h"

namespace {

typedef std::multimap<std::string, std::string> Items_t;

const size_t LOOKUPS = 4096;
const int FILE_KEYS = 20;
const unsigned long POCO_NAMES = 16381;  // it throws when a document has more names

std::string g_strDirectory;

// Sections of ten groups of ten keys.
struct Names {
  explicit Names(size_t i)
      : strSection("section_" + std::to_string(i / 100)),
        strGroup("group_" + std::to_string(i / 10 % 10)),
        strName("key_" + std::to_string(i % 10)) {}
  std::string Key() const { return strSection + "." + strGroup + "." + strName; }

  std::string strSection, strGroup, strName;
};

std::string Value(size_t i, const char* pReference) {
  return pReference == nullptr ? "value " + std::to_string(i * 7919)
                               : std::string("/srv/") + pReference + "/" + std::to_string(i);
}

// A document of iKeys elements, indented as a person or a generator would.
std::string MakeDocument(size_t iKeys, const char* pReference = nullptr) {
  std::string strText = "<?xml version=\"1.0\"?>\n<framework>\n  <root_path>data</root_path>\n";
  for (size_t i = 0; i < iKeys; ++i) {
    const Names stNames(i);
    if (i % 100 == 0) {
      strText += "  <" + stNames.strSection + ">\n";
    }
    if (i % 10 == 0) {
      strText += "    <" + stNames.strGroup + ">\n";
    }
    strText +=
        "      <" + stNames.strName + ">" + Value(i, pReference) + "</" + stNames.strName + ">\n";
    if (i % 10 == 9) {
      strText += "    </" + stNames.strGroup + ">\n";
    }
    if (i % 100 == 99) {
      strText += "  </" + stNames.strSection + ">\n";
    }
  }
  return strText + "</framework>\n";
}

void Flatten(const xmlNode* pNode, const std::string& strPrefix, Items_t& mapItems) {
  for (const xmlNode* pChild = pNode->children; pChild != nullptr; pChild = pChild->next) {
    if (pChild->type == XML_ELEMENT_NODE) {
      const std::string strKey = strPrefix + reinterpret_cast<const char*>(pChild->name);
      Flatten(pChild, strKey + ".", mapItems);
      if (pChild->children != nullptr && pChild->children->next == nullptr) {
        mapItems.emplace(strKey, reinterpret_cast<const char*>(pChild->children->content));
      }
    }
  }
}

void ParseInto(const std::string& strText, Items_t& mapItems) {
  xmlDocPtr pDocument = xmlParseMemory(strText.data(), static_cast<int>(strText.size()));
  Flatten(xmlDocGetRootElement(pDocument), "", mapItems);
  xmlFreeDoc(pDocument);
}

// The contestants: loaded from a text, asked for a key.
struct Zelk {
  static constexpr const char* REFERENCE = "@{root_path}";
  explicit Zelk(const std::string& strText) {
    std::set<std::string> setIncludes;
    m_stConfig.LoadFromMemory(strText.data(), strText.size(), &setIncludes);
  }
  const char* Get(const std::string& strKey) { return m_stConfig.StringValue(strKey.c_str()); }

  Config m_stConfig;
};

struct Multimap {
  static constexpr const char* REFERENCE = "";
  explicit Multimap(const std::string& strText) { ParseInto(strText, m_mapItems); }
  std::string Get(const std::string& strKey) { return m_mapItems.find(strKey)->second; }

  Items_t m_mapItems;
};

struct PocoXml {
  static constexpr const char* REFERENCE = "${root_path}";
  explicit PocoXml(const std::string& strText) {
    std::istringstream stText(strText);
    Poco::XML::InputSource stSource(stText);
    m_pConfig = new Poco::Util::XMLConfiguration;
    m_pConfig->load(&stSource, POCO_NAMES);
  }
  std::string Get(const std::string& strKey) { return m_pConfig->getString(strKey); }

  Poco::AutoPtr<Poco::Util::XMLConfiguration> m_pConfig;
};

struct PropertyTree {
  static constexpr const char* REFERENCE = "";
  explicit PropertyTree(const std::string& strText) {
    std::istringstream stText(strText);
    boost::property_tree::ptree stWhole;
    boost::property_tree::read_xml(stText, stWhole,
                                   boost::property_tree::xml_parser::trim_whitespace);
    m_stTree = stWhole.get_child("framework");
  }
  std::string Get(const std::string& strKey) { return m_stTree.get<std::string>(strKey); }

  boost::property_tree::ptree m_stTree;
};

template <typename Contestant>
void CheckLast(benchmark::State& stState, Contestant& stContestant, size_t iKeys,
               const std::string& strExpected) {
  if (std::string(stContestant.Get(Names(iKeys - 1).Key())) != strExpected) {
    stState.SkipWithError("wrong value");
  }
}

// Documents and what was loaded from them, kept for all cases and repetitions.
const std::string& Document(size_t iKeys, const char* pReference = nullptr) {
  static std::map<std::pair<size_t, const char*>, std::string> mapDocuments;
  std::string& strText = mapDocuments[{iKeys, pReference}];
  if (strText.empty()) {
    strText = MakeDocument(iKeys, pReference);
  }
  return strText;
}

template <typename Contestant>
Contestant& Loaded(size_t iKeys, const char* pReference) {
  static std::map<std::pair<size_t, const char*>, std::unique_ptr<Contestant>> mapLoaded;
  auto& pLoaded = mapLoaded[{iKeys, pReference}];
  if (pLoaded == nullptr) {
    pLoaded = std::make_unique<Contestant>(Document(iKeys, pReference));
  }
  return *pLoaded;
}

template <typename Contestant>
void Load(benchmark::State& stState, size_t iKeys) {
  const std::string& strText = Document(iKeys);
  MeasureCpu(stState, 1, [&] {
    Contestant stContestant(strText);
    CheckLast(stState, stContestant, iKeys, Value(iKeys - 1, nullptr));
  });
}

// The tree alone, which nobody could ask for a key.
void ParseOnly(benchmark::State& stState, size_t iKeys) {
  const std::string& strText = Document(iKeys);
  MeasureCpu(stState, 1, [&] {
    xmlDocPtr pDocument = xmlParseMemory(strText.data(), static_cast<int>(strText.size()));
    benchmark::DoNotOptimize(pDocument);
    xmlFreeDoc(pDocument);
  });
}

template <typename Contestant>
void Get(benchmark::State& stState, size_t iKeys, bool bVariable) {
  Contestant& stContestant = Loaded<Contestant>(iKeys, bVariable ? Contestant::REFERENCE : nullptr);
  CheckLast(stState, stContestant, iKeys, Value(iKeys - 1, bVariable ? "data" : nullptr));
  std::mt19937 stRandom(1);
  std::vector<std::string> vecKeys;
  for (size_t i = 0; i < LOOKUPS; ++i) {
    vecKeys.push_back(Names(stRandom() % iKeys).Key());
  }
  size_t i = 0;
  MeasureCpu(stState, 1,
             [&] { benchmark::DoNotOptimize(stContestant.Get(vecKeys[i++ % LOOKUPS])); });
}

void WriteText(const std::string& strPath, const std::string& strText) {
  std::ofstream(strPath, std::ios::binary) << strText;
}

std::string FileName(int iFile) {
  return g_strDirectory + "/part_" + std::to_string(1000 + iFile) + ".xml";
}

void WriteFiles(int iFiles) {
  for (int iFile = 0; iFile < iFiles; ++iFile) {
    std::string strText = "<framework><part_" + std::to_string(iFile) + ">\n";
    for (int i = 0; i < FILE_KEYS; ++i) {
      const std::string strName = "key_" + std::to_string(i);
      strText += "  <" + strName + ">" + std::to_string(i) + "</" + strName + ">\n";
    }
    WriteText(FileName(iFile), strText + "</part_" + std::to_string(iFile) + "></framework>\n");
  }
}

void RemoveFiles(int iFiles) {
  for (int iFile = 0; iFile < iFiles; ++iFile) {
    std::filesystem::remove(FileName(iFile));
  }
}

void MeasureFiles(benchmark::State& stState, int iFiles, const std::function<size_t()>& fnLoad) {
  WriteFiles(iFiles);
  MeasureCpu(stState, static_cast<size_t>(iFiles), [&] {
    if (fnLoad() < static_cast<size_t>(iFiles) * FILE_KEYS) {
      stState.SkipWithError("items are missing");
    }
  });
  RemoveFiles(iFiles);
}

void Includes(benchmark::State& stState, int iFiles, bool bGlob) {
  std::string strTop = "<framework>";
  for (int iFile = 0; iFile < (bGlob ? 1 : iFiles); ++iFile) {
    strTop +=
        "<include>" + (bGlob ? g_strDirectory + "/part_*.xml" : FileName(iFile)) + "</include>\n";
  }
  strTop += "</framework>";
  const std::string strPath = g_strDirectory + "/top.xml";
  WriteText(strPath, strTop);
  MeasureFiles(stState, iFiles, [&] {
    Config stConfig;
    stConfig.LoadFromFile(strPath.c_str());
    return stConfig.AllItems().size();
  });
}

void BareFiles(benchmark::State& stState, int iFiles) {
  MeasureFiles(stState, iFiles, [&] {
    Items_t mapItems;
    for (int iFile = 0; iFile < iFiles; ++iFile) {
      xmlDocPtr pDocument = xmlReadFile(FileName(iFile).c_str(), nullptr, 0);
      Flatten(xmlDocGetRootElement(pDocument), "", mapItems);
      xmlFreeDoc(pDocument);
    }
    return mapItems.size();
  });
}

template <typename Function, typename... Arguments>
void Register(const std::string& strName, Function fnRun, Arguments... tArguments) {
  benchmark::RegisterBenchmark(strName.c_str(), fnRun, tArguments...)->MinTime(0.1);
}

void RegisterSize(const std::string& strSize, size_t iKeys) {
  const std::string strLoad = "xml_load_" + strSize + "/";
  Register(strLoad + "zelk", Load<Zelk>, iKeys);
  Register(strLoad + "libxml2_multimap", Load<Multimap>, iKeys);
  Register(strLoad + "xmlParseMemory", ParseOnly, iKeys);
  Register(strLoad + "poco", Load<PocoXml>, iKeys);
  Register(strLoad + "property_tree", Load<PropertyTree>, iKeys);
  const std::string strGet = "xml_get_" + strSize + "/";
  Register(strGet + "zelk", Get<Zelk>, iKeys, false);
  Register(strGet + "std_multimap", Get<Multimap>, iKeys, false);
  Register(strGet + "poco", Get<PocoXml>, iKeys, false);
  Register(strGet + "property_tree", Get<PropertyTree>, iKeys, false);
  const std::string strVariable = "xml_get_variable_" + strSize + "/";
  Register(strVariable + "zelk", Get<Zelk>, iKeys, true);
  Register(strVariable + "poco", Get<PocoXml>, iKeys, true);
}

void RegisterIncludes(int iFiles) {
  const std::string strEnd = "_" + std::to_string(iFiles) + "/";
  Register("xml_includes_glob" + strEnd + "zelk", Includes, iFiles, true);
  Register("xml_includes_glob" + strEnd + "libxml2_multimap", BareFiles, iFiles);
  Register("xml_includes_list" + strEnd + "zelk", Includes, iFiles, false);
  Register("xml_includes_list" + strEnd + "libxml2_multimap", BareFiles, iFiles);
}

}  // namespace

int main(int argc, char** argv) {
  const char* pTmp = getenv("TMPDIR");
  g_strDirectory = std::string(pTmp != nullptr ? pTmp : "/tmp") + "/zelk_config_bench_XXXXXX";
  if (mkdtemp(g_strDirectory.data()) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  RegisterSize("1e3", 1000);
  RegisterSize("1e5", 100000);
  RegisterIncludes(50);
  RegisterIncludes(400);
  const int iResult = RunWithRatios(argc, argv);
  std::filesystem::remove_all(g_strDirectory);
  return iResult;
}
