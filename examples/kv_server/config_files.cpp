#include "config_files.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

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

// The loaders report no reason; this is the one that operators meet most.
std::string WhyUnreadable(const std::string& strPath, const char* pElse) {
  return strPath + ": " + (access(strPath.c_str(), R_OK) != 0 ? strerror(errno) : pElse);
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
  return strKey + " = \"" + strValue + "\": " + strWhat;
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
  return bDigits && strText.size() <= MAX_DIGITS ? static_cast<unsigned int>(atoi(strText.c_str()))
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

}  // namespace

std::string LoadConfigFile(Settings_t& stSettings, const std::string& strPath) {
  Config stConfig;
  stConfig.SetMacroVariable("config.dir", DirectoryOf(strPath).c_str());
  if (stConfig.LoadFromFile(strPath.c_str()) != 0) {
    return WhyUnreadable(strPath, "this file or one that it includes is no XML file with content");
  }
  for (const auto& [strKey, strRaw] : stConfig.AllItems()) {
    if (IsInclude(strKey)) {
      continue;
    }
    const std::string strValue = stConfig.StringValue(strKey.c_str());
    std::string strError = stConfig.AllItems().count(strKey) > 1
                               ? strPath + ": " + Wrong(strKey, strValue, "is set more than once")
                               : SetSetting(stSettings, strKey, strValue, strPath + ": ");
    if (!strError.empty()) {
      return strError;
    }
  }
  return "";
}

std::string LoadOperatorFile(Settings_t& stSettings, const std::string& strPath) {
  IniConfig stIni;
  if (access(strPath.c_str(), R_OK) != 0 || stIni.LoadFromFile(strPath.c_str()) != 0) {
    return WhyUnreadable(strPath, "a file that it includes can not be read");
  }
  for (const std::string& strSection : stIni.EnumSections("")) {
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
        return strPath + ": " + strError;
      }
    }
  }
  const std::string strError = CheckCommandNames(stSettings.mapCommandNames);
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
