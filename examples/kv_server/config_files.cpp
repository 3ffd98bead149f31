#include "config_files.h"

#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include "command_table.h"
#include "config.h"
#include "config_generator.h"
#include "ini_config.h"
#include "string_util.h"

namespace {

const size_t MAX_DIGITS = 9;

std::string DirectoryOf(const std::string& strPath) {
  char szReal[PATH_MAX];
  if (realpath(strPath.c_str(), szReal) == nullptr) {
    return "";
  }
  const std::string strReal = szReal;
  return strReal.substr(0, strReal.rfind('/'));
}

std::vector<std::string> Matches(const std::string& strPattern) {
  glob_t stGlob{};
  std::vector<std::string> vecPaths;
  if (glob(strPattern.c_str(), GLOB_TILDE, nullptr, &stGlob) == 0) {
    vecPaths.assign(stGlob.gl_pathv, stGlob.gl_pathv + stGlob.gl_pathc);
  }
  globfree(&stGlob);
  return vecPaths;
}

// One load of a file, for messages: the loaders report no reason, and no file of an item.
struct Load_t {
  std::string strPath;
  std::set<std::string> setIncludes{};  // the patterns that the load has followed

  // The file itself and those that it includes.
  std::vector<std::string> Files() const {
    std::vector<std::string> vecFiles = {strPath};
    for (const std::string& strPattern : setIncludes) {
      const std::vector<std::string> vecMatches = Matches(strPattern);
      vecFiles.insert(vecFiles.end(), vecMatches.begin(), vecMatches.end());
    }
    return vecFiles;
  }

  // The loaders pass over what is not there. That is meant for patterns; a single file that is
  // missing is a mistake. An empty name comes from a reference to nothing and asks for nothing.
  std::string MissingInclude() const {
    for (const std::string& strPattern : setIncludes) {
      if (!strPattern.empty() && strPattern.find_first_of("*?[") == std::string::npos &&
          Matches(strPattern).empty()) {
        return strPath + ": include = \"" + strPattern + "\": there is no such file";
      }
    }
    return "";
  }

  // The first file that can not be read, and why; empty when all can be. For IniConfig a directory
  // is a file without lines, so nothing else would tell.
  std::string Unreadable() const {
    for (const std::string& strFile : Files()) {
      struct stat stStat {};
      if (stat(strFile.c_str(), &stStat) != 0 || access(strFile.c_str(), R_OK) != 0) {
        return strFile + ": " + strerror(errno);
      }
      if (S_ISDIR(stStat.st_mode)) {
        return strFile + ": " + strerror(EISDIR);
      }
    }
    return "";
  }
};

// A file of a load without what it includes.
bool LoadAlone(Config& stConfig, const Load_t& stLoad, const std::string& strFile) {
  std::set<std::string> setFollowed = stLoad.setIncludes;
  stConfig.SetMacroVariable("config.dir", DirectoryOf(stLoad.strPath).c_str());
  return stConfig.LoadFromFile(strFile.c_str(), &setFollowed) == 0;
}

std::string WhyNotLoaded(const Load_t& stLoad) {
  std::string strError = stLoad.Unreadable();
  for (const std::string& strFile : stLoad.Files()) {
    Config stConfig;
    if (strError.empty() && !LoadAlone(stConfig, stLoad, strFile)) {
      strError = strFile + ": is no XML file with content";
    }
  }
  return strError.empty() ? stLoad.strPath + ": can not be loaded" : strError;
}

// Which file an item of a load stands in.
std::string FileOf(const Load_t& stLoad, const std::string& strKey) {
  if (stLoad.setIncludes.empty()) {
    return stLoad.strPath;
  }
  for (const std::string& strFile : stLoad.Files()) {
    Config stConfig;
    if (LoadAlone(stConfig, stLoad, strFile) && stConfig.AllItems().count(strKey) > 0) {
      return strFile;
    }
  }
  return stLoad.strPath;
}

std::string FileOf(const Load_t& stLoad, const std::string& strSection, const std::string& strKey) {
  for (const std::string& strFile : stLoad.Files()) {
    IniConfig stIni;
    std::set<std::string> setFollowed = stLoad.setIncludes;
    if (stIni.LoadFromFile(strFile.c_str(), &setFollowed) == 0 &&
        stIni.Count(strSection, strKey) > 0) {
      return strFile;
    }
  }
  return stLoad.strPath;
}

// Config follows every key that contains this word.
bool IsInclude(const std::string& strKey) { return strKey.find("include") != std::string::npos; }

std::string LowerCase(std::string strText) {
  for (char& c : strText) {
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return strText;
}

// A name without a value keeps the end of its line; an empty line is nothing but that.
std::string WithoutLineEnd(std::string strKey) {
  strKey.erase(strKey.find_last_not_of("\r\n") + 1);
  return strKey;
}

std::string Wrong(const std::string& strKey, const std::string& strValue,
                  const std::string& strWhat) {
  return strKey + " = \"" + ShownValue(strKey, strValue) + "\": " + strWhat;
}

// ConfigGenerator takes character data of XML.
std::string EscapeXml(const std::string& strText) {
  std::string strOut;
  for (const char c : strText) {
    strOut += c == '&' ? "&amp;" : c == '<' ? "&lt;" : std::string(1, c);
  }
  return strOut;
}

// A number from 1 of at most nine digits, or 0.
unsigned int PositiveNumber(const std::string& strText) {
  const bool bDigits = strText.find_first_not_of("0123456789") == std::string::npos;
  return bDigits && strText.size() <= MAX_DIGITS
             ? static_cast<unsigned int>(strtoul(strText.c_str(), nullptr, 10))
             : 0;
}

// "900:1"
std::string AddSaveRule(Settings_t& stSettings, const std::string& strValue) {
  const size_t iColon = std::min(strValue.find(':'), strValue.size());
  const SaveRule_t stRule = {
      PositiveNumber(strValue.substr(0, iColon)),
      PositiveNumber(strValue.substr(std::min(iColon + 1, strValue.size())))};
  if (stRule.iSeconds == 0 || stRule.iChanges == 0) {
    return Wrong("save", strValue, "must be SECONDS:CHANGES without blanks, both from 1");
  }
  stSettings.vecSaveRules.push_back(stRule);
  return "";
}

// One item of the operators' file, as it stands in its section.
std::string ApplyOperatorItem(Settings_t& stSettings, const std::string& strSection,
                              const std::string& strKey, const std::string& strValue) {
  if (strSection.empty() && strKey == "include") {
    return "";
  }
  if (strSection.empty() && strKey == "save") {
    return AddSaveRule(stSettings, strValue);
  }
  const std::string strWhere = (strSection.empty() ? "" : "[" + strSection + "] ") + strKey;
  if (strSection != "rename" && strSection != "disable") {
    return Wrong(strWhere, strValue, "unknown setting");
  }
  if (strValue.empty() != (strSection == "disable")) {
    return Wrong(strWhere, strValue,
                 strValue.empty() ? "a new name is missing" : "a disabled command has no value");
  }
  const bool bNew =
      stSettings.mapCommandNames.emplace(LowerCase(strKey), LowerCase(strValue)).second;
  return bNew ? "" : Wrong(strWhere, strValue, "this command has been named before");
}

// The items of one section, up to the first that is wrong.
std::string ApplySection(Settings_t& stSettings, const IniConfig& stIni,
                         const std::string& strSection, const Load_t& stLoad) {
  std::string strLast;
  int iIndex = 0;
  for (const std::string& strKey : stIni.EnumKeys(strSection, "")) {
    iIndex = strKey == strLast ? iIndex + 1 : 0;
    strLast = strKey;
    const std::string strName = WithoutLineEnd(strKey);
    const std::string strError =
        strName.empty() ? ""
                        : ApplyOperatorItem(stSettings, strSection, strName,
                                            stIni.GetValue(strSection, strKey, iIndex));
    if (!strError.empty()) {
      return FileOf(stLoad, strSection, strKey) + ": " + strError;
    }
  }
  return "";
}

}  // namespace

std::string LoadConfigFile(Settings_t& stSettings, const std::string& strPath) {
  Config stConfig;
  Load_t stLoad{strPath};
  stConfig.SetMacroVariable("config.dir", DirectoryOf(strPath).c_str());
  if (stConfig.LoadFromFile(strPath.c_str(), &stLoad.setIncludes) != 0) {
    return WhyNotLoaded(stLoad);
  }
  std::string strError = stLoad.MissingInclude();
  for (const auto& [strKey, strRaw] : stConfig.AllItems()) {
    if (!strError.empty()) {
      break;
    }
    if (IsInclude(strKey)) {
      continue;
    }
    const std::string strValue = stConfig.StringValue(strKey.c_str());
    const std::string strOrigin = FileOf(stLoad, strKey) + ": ";
    strError = stConfig.AllItems().count(strKey) > 1
                   ? strOrigin + Wrong(strKey, strValue, "is set more than once")
                   : SetSetting(stSettings, strKey, strValue, strOrigin);
  }
  return strError;
}

std::string LoadOperatorFile(Settings_t& stSettings, const std::string& strPath) {
  IniConfig stIni;
  Load_t stLoad{strPath};
  const bool bLoaded = stIni.LoadFromFile(strPath.c_str(), &stLoad.setIncludes) == 0;
  std::string strError = stLoad.Unreadable();
  if (strError.empty()) {
    strError = bLoaded ? stLoad.MissingInclude() : strPath + ": can not be loaded";
  }
  if (!strError.empty()) {
    return strError;
  }
  for (const std::string& strSection : stIni.EnumSections("")) {
    strError = ApplySection(stSettings, stIni, strSection, stLoad);
    if (!strError.empty()) {
      return strError;
    }
  }
  strError = CheckCommandNames(stSettings.mapCommandNames);
  return strError.empty() ? "" : strPath + ": " + strError;
}

std::string ConfigText(const Settings_t& stSettings) {
  ConfigGenerator stGenerator;
  stGenerator.SetRootName("kv_server");
  stGenerator.SetEncoding("UTF-8");
  for (const SettingRow_t& stRow : ListSettings(stSettings)) {
    stGenerator.SetKeyValue(stRow.pKey, EscapeXml(stRow.strValue));
  }
  return stGenerator.GenerateContent();
}
