#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "test_support.h"

namespace {

// What a command wrote to standard output and error; its exit code is the last line.
std::string Shell(const std::string& strCommand) {
  FILE* pOutput = popen(("{ " + strCommand + "; } 2>&1; echo exit $?").c_str(), "r");
  std::string strText;
  char szLine[4096];
  while (pOutput != nullptr && fgets(szLine, sizeof(szLine), pOutput) != nullptr) {
    strText += szLine;
  }
  return pOutput != nullptr && pclose(pOutput) == 0 ? strText : "no shell\n";
}

bool EndsWith(const std::string& strText, const std::string& strEnd) {
  return strText.size() >= strEnd.size() &&
         strText.compare(strText.size() - strEnd.size(), strEnd.size(), strEnd) == 0;
}

// A prefix with the library installed from this build, and a place to build hosts in.
class InstallTest : public testing::Test {
 protected:
  // The library's directory alone: all of a build would leave a list of what it installed there.
  void SetUp() override {
    const std::string strText =
        Shell("cmake --install '" BUILD_DIRECTORY "/common' --prefix '" + Prefix() + "'");
    ASSERT_TRUE(EndsWith(strText, "exit 0\n")) << strText;
  }

  std::string Prefix() const { return m_stDirectory.File("prefix"); }
  std::string Work() const { return m_stDirectory.File("work"); }

  std::string Configure(const std::string& strHost, const std::string& strOptions) const {
    return "cmake -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER='" CXX_COMPILER
           "' -S '" CONSUMERS "/" +
           strHost + "' -B '" + Work() + "' " + strOptions;
  }

  // The command succeeds, and then the host that it has built says that all is there.
  void ExpectHost(const std::string& strBuild) const {
    const std::string strText = Shell(strBuild + " && '" + Work() + "/host'");
    EXPECT_TRUE(EndsWith(strText, "\nhost: linked\nexit 0\n")) << strText;
  }

  PrivateDirectory m_stDirectory;
};

std::set<std::string> FilesIn(const std::filesystem::path& stDirectory,
                              const std::string& strExtension) {
  std::set<std::string> setNames;
  for (const auto& stEntry : std::filesystem::directory_iterator(stDirectory)) {
    if (strExtension.empty() || stEntry.path().extension() == strExtension) {
      setNames.insert(stEntry.path().filename());
    }
  }
  return setNames;
}

TEST_F(InstallTest, EveryPublicHeaderIsInstalledAndNothingElseBesideThem) {
  const std::set<std::string> setInstalled = FilesIn(Prefix() + "/include/zelk_common", "");
  EXPECT_EQ(FilesIn(SOURCE_DIRECTORY "/common", ".h"), setInstalled);
  EXPECT_EQ(1U, setInstalled.count("message_queue.h"));
}

TEST_F(InstallTest, TheLinkersNameLeadsToTheSonameAndThatToTheFile) {
  const std::string strLibrary = Prefix() + "/" LIBRARY_DIRECTORY "/libzelk_common.so";
  EXPECT_EQ("libzelk_common.so.1", std::filesystem::read_symlink(strLibrary));
  EXPECT_EQ("libzelk_common.so.1.0.0", std::filesystem::read_symlink(strLibrary + ".1"));
  const std::string strDynamic = Shell("readelf -d '" + strLibrary + "'");
  EXPECT_NE(std::string::npos, strDynamic.find("soname: [libzelk_common.so.1]")) << strDynamic;
  EXPECT_EQ(std::string::npos, strDynamic.find("RUNPATH")) << strDynamic;
}

TEST_F(InstallTest, TheRuntimeComponentIsTheLibraryWithoutTheLinkersName) {
  const std::string strPrefix = m_stDirectory.File("runtime");
  Shell("cmake --install '" BUILD_DIRECTORY "/common' --component Runtime --prefix '" + strPrefix +
        "'");
  EXPECT_EQ((std::set<std::string>{"libzelk_common.so.1", "libzelk_common.so.1.0.0"}),
            FilesIn(strPrefix + "/" LIBRARY_DIRECTORY, ""));
  EXPECT_FALSE(std::filesystem::exists(strPrefix + "/include"));
}

// gdb looks for them below its own directory under the library's whole path.
TEST_F(InstallTest, GdbsPrintersStandUnderThePathThatTheLibraryHasBelowThisPrefix) {
  const std::string strText = Shell(
      "cmake --install '" BUILD_DIRECTORY "/gdb' --component Runtime --prefix '" + Prefix() + "'");
  EXPECT_TRUE(EndsWith(strText, "exit 0\n")) << strText;
  EXPECT_TRUE(std::filesystem::exists(Prefix() + "/share/gdb/auto-load" + Prefix() +
                                      "/" LIBRARY_DIRECTORY "/libzelk_common.so.1.0.0-gdb.py"))
      << strText;
}

TEST_F(InstallTest, AHostThatFindsThePackageWithCMakeIsBuiltAndRuns) {
  ExpectHost(Configure("find_package", "-DCMAKE_PREFIX_PATH='" + Prefix() + "'") +
             " && cmake --build '" + Work() + "'");
}

TEST_F(InstallTest, AHostThatAsksPkgConfigFromMakeIsBuiltAndRuns) {
  const std::string strLibraries = Prefix() + "/" LIBRARY_DIRECTORY;
  std::filesystem::create_directory(Work());
  ExpectHost("export PKG_CONFIG_PATH='" + strLibraries + "/pkgconfig' LD_LIBRARY_PATH='" +
             strLibraries + "' && make -C '" + Work() +
             "' -f " CONSUMERS "/pkg_config/Makefile SOURCES=" CONSUMERS " CXX='" CXX_COMPILER "'");
}

// Building the library takes as long as its sources take. Unless all is asked for, the host is
// compiled in the added tree and linked with the library of this build.
TEST_F(InstallTest, AHostThatAddsTheSourceTreeIsBuiltAndRuns) {
  std::string strBuild =
      Configure("source_tree", "-DZELK_SOURCE='" SOURCE_DIRECTORY "'") + " && cd '" + Work() + "'";
  if (getenv("ZELK_WHOLE_SOURCE_TREE") == nullptr) {
    strBuild +=
        " && ninja -t query host | grep -q libzelk_common.so"
        " && mkdir -p zelk_common/common && ln -s '" BUILD_DIRECTORY
        "'/common/libzelk_common.so* zelk_common/common"
        " && ninja $(ninja -t query host | grep -m1 -o '[^ ]*main.cpp.o')"
        " && eval \"$(ninja -t commands -s host)\"";
  } else {
    strBuild += " && ninja host";
  }
  ExpectHost(strBuild);
}

TEST_F(InstallTest, AnAddedSourceTreeBuildsAndInstallsNothingButTheLibrary) {
  const std::string strText = Shell(
      Configure("source_tree", "-DZELK_SOURCE='" SOURCE_DIRECTORY "'") + " && ninja -C '" + Work() +
      "' -n -v && cmake --install '" + Work() + "' --prefix '" + m_stDirectory.File("none") + "'");
  EXPECT_TRUE(EndsWith(strText, "exit 0\n")) << strText;
  EXPECT_NE(std::string::npos, strText.find("-o zelk_common/common/libzelk_common.so")) << strText;
  for (const char* pOther : {"/tests/crash", "/examples/", "/bench/", "/tools/", "-Werror "}) {
    EXPECT_EQ(std::string::npos, strText.find(pOther)) << pOther << " in " << strText;
  }
  EXPECT_FALSE(std::filesystem::exists(m_stDirectory.File("none")));
}

TEST_F(InstallTest, AnotherMajorVersionAndALaterMinorOneAreRefused) {
  const std::string strScript = m_stDirectory.File("find.cmake");
  std::ofstream(strScript) << "find_package(zelk_common ${WANTED} QUIET CONFIG PATHS " << Prefix()
                           << " NO_DEFAULT_PATH)\n"
                           << "message(\"${zelk_common_CONSIDERED_VERSIONS} "
                              "${zelk_common_FOUND}\")\n";
  for (const char* pWanted : {"0.9", "1.999", "2.0"}) {
    EXPECT_EQ("1.0.0 0\nexit 0\n",
              Shell("cmake -DWANTED=" + std::string(pWanted) + " -P '" + strScript + "'"));
  }
}

}  // namespace
