// Configuration that programs of a Debian system ship, as Config sees it. Their own include
// elements name files relative to themselves: those patterns count as followed here.

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "config.h"
#include "config_test_support.h"

namespace {

class ConfigFilesTest : public ConfigTest {
 protected:
  int LoadData(const std::string& strName, std::set<std::string> setFollowed) {
    return m_stConfig.LoadFromFile((std::string(TEST_DATA) + "/xml/" + strName).c_str(),
                                   &setFollowed);
  }
};

TEST_F(ConfigFilesTest, FontconfigIsReadWithoutItsDtd) {
  ASSERT_EQ(0, LoadData("fontconfig.xml", {"/conf.d", "/yes"}));
  EXPECT_STREQ("Default configuration file", m_stConfig.StringValue("description"));
  EXPECT_EQ("/usr/share/fonts,/usr/local/share/fonts,fonts,~/.fonts",
            Joined(m_stConfig.StringValues("dir")));
  EXPECT_STREQ("xdg", m_stConfig.StringValue("dir.prefix"));
  EXPECT_EQ("mono,sans serif,sans,system ui", Joined(m_stConfig.StringValues("match.test.string")));
  EXPECT_EQ("monospace,sans-serif,sans-serif,system-ui",
            Joined(m_stConfig.StringValues("match.edit.string")));
  EXPECT_EQ("*.dpkg-tmp,*.dpkg-new", Joined(m_stConfig.StringValues("selectfont.rejectfont.glob")));
  EXPECT_EQ("include=conf.d include.ignore_missing=yes",
            ItemsText(m_stConfig.EnumValues("include")));
}

TEST_F(ConfigFilesTest, DbusSessionIsReadWithoutItsDtdOnTheNetwork) {
  ASSERT_EQ(0, LoadData("dbus_session.xml",
                        {"/etc/dbus-1/session.conf", "/etc/dbus-1/session-local.conf", "/session.d",
                         "/etc/dbus-1/session.d", "/contexts/dbus_contexts", "/yes"}));
  EXPECT_STREQ("session", m_stConfig.StringValue("type"));
  EXPECT_STREQ("unix:tmpdir=/tmp", m_stConfig.StringValue("listen"));
  EXPECT_STREQ("EXTERNAL", m_stConfig.StringValue("auth"));
  EXPECT_EQ(0u, m_stConfig.AllItems().count("keep_umask"));
  EXPECT_STREQ("default", m_stConfig.StringValue("policy.context"));
  EXPECT_EQ("true,true", Joined(m_stConfig.StringValues("policy.allow.eavesdrop")));
  EXPECT_STREQ("*", m_stConfig.StringValue("policy.allow.own"));
  EXPECT_STREQ("max_incoming_bytes", m_stConfig.StringValue("limit.name"));
  EXPECT_EQ(1000000000, m_stConfig.IntValue("limit"));
  EXPECT_EQ(m_stConfig.IntValues("limit").size(), m_stConfig.StringValues("limit.name").size());
}

TEST_F(ConfigFilesTest, DirectoryThatAShippedFileIncludesFailsTheLoad) {
  const PrivateDirectory stDirectory;
  EXPECT_EQ(-1, Load("<type>session</type><includedir>" + stDirectory.Path() + "</includedir>"));
  EXPECT_STREQ("session", m_stConfig.StringValue("type"));
}

}  // namespace
