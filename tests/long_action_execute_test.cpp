#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "class_factory.h"
#include "long_action_util.h"
#include "test_support.h"

namespace {

int g_iLive = 0;
int g_iCode = 0;
class Probe* g_pLast = nullptr;

// Looks around while it runs.
class Probe : public LongActionMethod {
 public:
  Probe() { ++g_iLive; }
  ~Probe() override { --g_iLive; }

  int Do() override {
    g_pLast = this;
    iParentCode = Parent()->Retcode();
    strValue = Param("key", 0);
    ResultParam("own", "result");
    return g_iCode;
  }

  int iParentCode = 0;
  std::string strValue;
};

class NoMethod : public Object {
 public:
  NoMethod() { ++g_iLive; }
  ~NoMethod() override { --g_iLive; }
  void Dump(int /*iFD*/) override {}
};

class OpenCarrier : public LongActionMethod {
 public:
  LongActionMethod* RealMethod() const { return m_pRealMethod; }
};

Object* MakeProbe() { return new Probe; }
Object* MakeNoMethod() { return new NoMethod; }
Object* MakeNothing() { return nullptr; }

const bool g_bRegistered = ClassFactory::Instance().AddObject("TestProbe", MakeProbe) &&
                           ClassFactory::Instance().AddObject("TestNoMethod", MakeNoMethod) &&
                           ClassFactory::Instance().AddObject("TestNothing", MakeNothing);

class LongActionExecuteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(g_bRegistered);
    g_iCode = 0;
    g_pLast = nullptr;
    ASSERT_EQ(0, g_iLive);
  }
  void TearDown() override {
    m_pCarrier.reset();
    EXPECT_EQ(0, g_iLive);
  }

  // What it prints on descriptor 2.
  std::string ExecuteBytes(const std::string& strBytes) {
    return CaptureOutput(2, [&] {
      m_pCarrier->Execute(strBytes.data(), static_cast<unsigned int>(strBytes.size()));
    });
  }
  std::string Execute(const std::string& strMethod, const std::string& strValue = "value") {
    LongActionMethod stRequest;
    stRequest.Method(strMethod);
    stRequest.Param("key", strValue);
    return ExecuteBytes(stRequest.SerializeRequest());
  }

  std::unique_ptr<OpenCarrier> m_pCarrier = std::make_unique<OpenCarrier>();
};

std::string UnknownMethodText(const std::string& strMethod) {
  std::string strText = "Internal error: invalid object type `" + strMethod + "`\n";
  for (const auto& stEntry : ClassFactory::Instance().ObjectMap()) {
    strText += "Internal error:   valid list - " + stEntry.first + "\n";
  }
  return strText;
}

TEST_F(LongActionExecuteTest, RunsTheNamedMethodSilently) {
  g_iCode = 3;
  EXPECT_EQ("", Execute("TestProbe"));
  EXPECT_EQ(3, m_pCarrier->Retcode());
  EXPECT_EQ("TestProbe", m_pCarrier->Method());
}

TEST_F(LongActionExecuteTest, MethodSeesItsCarrierAndReadsItsParameters) {
  Execute("TestProbe", "of the request");
  ASSERT_NE(nullptr, g_pLast);
  EXPECT_EQ(m_pCarrier.get(), g_pLast->Parent());
  EXPECT_EQ("of the request", g_pLast->strValue);
}

TEST_F(LongActionExecuteTest, ResultCodeIsMinusOneWhileTheMethodRuns) {
  g_iCode = 5;
  Execute("TestProbe");
  EXPECT_EQ(-1, g_pLast->iParentCode);
}

TEST_F(LongActionExecuteTest, ResultCodeIsKeptAsItIs) {
  for (const int iCode : {256, -5, 70000}) {
    m_pCarrier = std::make_unique<OpenCarrier>();
    g_iCode = iCode;
    Execute("TestProbe");
    EXPECT_EQ(iCode, m_pCarrier->Retcode());
  }
}

TEST_F(LongActionExecuteTest, ResultsStayWithTheObjectThatMadeThem) {
  Execute("TestProbe");
  EXPECT_EQ("", m_pCarrier->SerializeResult());
  EXPECT_NE("", g_pLast->SerializeResult());
}

TEST_F(LongActionExecuteTest, CarrierDestroysItsMethod) {
  Execute("TestProbe");
  EXPECT_EQ(1, g_iLive);
  EXPECT_EQ(g_pLast, m_pCarrier->RealMethod());
  m_pCarrier.reset();
  EXPECT_EQ(0, g_iLive);
}

TEST_F(LongActionExecuteTest, ResultsAreEmptiedAndParametersAreNot) {
  m_pCarrier->Param("key", "earlier");
  m_pCarrier->ResultParam("earlier", "result");
  Execute("TestProbe", "later");
  EXPECT_EQ("", m_pCarrier->SerializeResult());
  EXPECT_EQ("earlier", m_pCarrier->Param("key", 0));
  EXPECT_EQ("later", m_pCarrier->Param("key", 1));
}

TEST_F(LongActionExecuteTest, BytesThatCanNotBeParsedAreTold) {
  m_pCarrier->ResultParam("earlier", "result");
  EXPECT_EQ("Internal error: can't parse data\n", ExecuteBytes("xyz"));
  EXPECT_EQ("Internal error: can't parse data\n", ExecuteBytes(""));
  EXPECT_EQ(-1, m_pCarrier->Retcode());
  EXPECT_EQ("", m_pCarrier->SerializeResult());
  EXPECT_EQ(nullptr, m_pCarrier->RealMethod());
}

TEST_F(LongActionExecuteTest, UnknownNameIsToldWithAllNamesInOrder) {
  const std::string strText = Execute("NoSuchMethod");
  EXPECT_EQ(UnknownMethodText("NoSuchMethod"), strText);
  EXPECT_EQ(
      "Internal error: invalid object type `NoSuchMethod`\n"
      "Internal error:   valid list - ExecuteShell2\n"
      "Internal error:   valid list - TestNoMethod\n"
      "Internal error:   valid list - TestNothing\n"
      "Internal error:   valid list - TestProbe\n",
      strText);
  EXPECT_EQ(-1, m_pCarrier->Retcode());
  EXPECT_EQ("NoSuchMethod", m_pCarrier->Method());
}

TEST_F(LongActionExecuteTest, NameIsNoFormat) {
  EXPECT_EQ(UnknownMethodText("%s%n%d"), Execute("%s%n%d"));
}

TEST_F(LongActionExecuteTest, ObjectThatIsNoMethodIsAnUnknownName) {
  EXPECT_EQ(UnknownMethodText("TestNoMethod"), Execute("TestNoMethod"));
  EXPECT_EQ(-1, m_pCarrier->Retcode());
  EXPECT_EQ(nullptr, m_pCarrier->RealMethod());
  EXPECT_EQ(0, g_iLive);
}

TEST_F(LongActionExecuteTest, CreatorThatGivesNothingIsAnUnknownName) {
  EXPECT_EQ(UnknownMethodText("TestNothing"), Execute("TestNothing"));
  EXPECT_EQ(-1, m_pCarrier->Retcode());
}

TEST_F(LongActionExecuteTest, SecondCallForgetsTheFirstMethodWithoutDestroyingIt) {
  Execute("TestProbe");
  const std::unique_ptr<Probe> pFirst(g_pLast);
  Execute("TestProbe");
  EXPECT_EQ(2, g_iLive);
  EXPECT_NE(pFirst.get(), m_pCarrier->RealMethod());
  m_pCarrier.reset();
  EXPECT_EQ(1, g_iLive);
}

TEST_F(LongActionExecuteTest, UnknownNameForgetsAnEarlierMethodToo) {
  g_iCode = 7;
  Execute("TestProbe");
  const std::unique_ptr<Probe> pFirst(g_pLast);
  Execute("NoSuchMethod");
  EXPECT_EQ(nullptr, m_pCarrier->RealMethod());
  EXPECT_EQ(-1, m_pCarrier->Retcode());
}

TEST_F(LongActionExecuteTest, FailedParseKeepsAnEarlierMethod) {
  g_iCode = 7;
  Execute("TestProbe");
  ExecuteBytes("xyz");
  EXPECT_EQ(g_pLast, m_pCarrier->RealMethod());
  EXPECT_EQ(-1, m_pCarrier->Retcode());
}

}  // namespace
