// Documents that mean harm: they must reach neither a file nor the network, and cost little.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "config.h"
#include "config_test_support.h"

namespace {

const char SECRET[] = "text of another file";

// A server on the loopback address that hangs up on everybody and tells whether somebody came.
class Listener {
 public:
  Listener() : m_iFD(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in stAddress{};
    stAddress.sin_family = AF_INET;
    stAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t iLength = sizeof(stAddress);
    auto* pAddress = reinterpret_cast<sockaddr*>(&stAddress);
    m_bReady = pipe2(m_szPipe, O_CLOEXEC) == 0 && bind(m_iFD, pAddress, iLength) == 0 &&
               listen(m_iFD, 8) == 0 && getsockname(m_iFD, pAddress, &iLength) == 0;
    m_strUrl = "http://127.0.0.1:" + std::to_string(ntohs(stAddress.sin_port)) + "/x";
    m_pServer = std::make_unique<ForkedPeer>([this] { return HangUp(); });
  }
  ~Listener() {
    m_pServer.reset();
    for (const int iFD : {m_iFD, m_szPipe[0], m_szPipe[1]}) {
      close(iFD);
    }
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  bool Ready() const { return m_bReady; }
  const std::string& Url() const { return m_strUrl; }
  // Whoever calls waits for an answer, and we tell before we hang up.
  bool Reached() const {
    pollfd stPoll{m_szPipe[0], POLLIN, 0};
    return poll(&stPoll, 1, 0) != 0;
  }

 private:
  int HangUp() const {
    while (true) {
      const int iCaller = accept(m_iFD, nullptr, nullptr);
      if (iCaller == -1 || write(m_szPipe[1], "x", 1) != 1) {
        return 1;
      }
      close(iCaller);
    }
  }

  int m_iFD;
  int m_szPipe[2] = {-1, -1};
  bool m_bReady = false;
  std::string m_strUrl;
  std::unique_ptr<ForkedPeer> m_pServer;
};

// libxml2's settings of the process as the rashest host would have them.
class RashDefaults {
 public:
  RashDefaults() : m_iEntities(xmlSubstituteEntitiesDefault(1)), m_iDtd(xmlLoadExtDtdDefaultValue) {
    xmlLoadExtDtdDefaultValue = 1;
  }
  ~RashDefaults() {
    xmlSubstituteEntitiesDefault(m_iEntities);
    xmlLoadExtDtdDefaultValue = m_iDtd;
  }
  RashDefaults(const RashDefaults&) = delete;
  RashDefaults& operator=(const RashDefaults&) = delete;

 private:
  int m_iEntities;
  int m_iDtd;
};

class ConfigHostileTest : public ConfigTest {
 protected:
  void SetUp() override {
    WriteFile(m_stDirectory.File("secret"), SECRET);
    WriteFile(m_stDirectory.File("secret.dtd"),
              std::string("<!ENTITY s '") + SECRET + "'><!ATTLIST a x CDATA '" + SECRET + "'>");
  }
  // The items of a document, or that it was refused; whatever libxml2 says is dropped.
  std::string Outcome(const std::string& strDocument) {
    std::string strOutcome;
    CaptureOutput(2, [&] { strOutcome = LoadDocument(strDocument) == 0 ? Items() : "(refused)"; });
    return strOutcome;
  }
  std::string Path(const std::string& strName) const { return m_stDirectory.File(strName); }

  // Documents that would bring in what stands at a place.
  std::vector<std::string> Documents(const std::string& strPlace) const {
    const std::string strRoot = "<r><a>[&s;]</a></r>";
    const std::string strSystem = " SYSTEM '" + strPlace + "'";
    return {"<!DOCTYPE r [<!ENTITY s" + strSystem + ">]>" + strRoot,
            "<!DOCTYPE r [<!ENTITY s PUBLIC 'p' '" + strPlace + "'>]><r><a x='y'>[&s;&s;]</a></r>",
            "<!DOCTYPE r" + strSystem + ">" + strRoot,
            "<!DOCTYPE r" + strSystem + "><r><a>1</a></r>",
            "<!DOCTYPE r [<!ENTITY % p" + strSystem + ">%p;]>" + strRoot,
            "<!DOCTYPE r [<!ENTITY % p" + strSystem + ">%p;]><r><a>1</a></r>",
            "<?xml-stylesheet href='" + strPlace +
                "'?><r xmlns:xi="
                "'http://www.w3.org/2001/XInclude'><xi:x href='" +
                strPlace + "'/></r>",
            "<r xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' "
            "xsi:noNamespaceSchemaLocation='" +
                strPlace + "'><a>1</a></r>"};
  }

  PrivateDirectory m_stDirectory;
};

TEST_F(ConfigHostileTest, NoEntityAndNoDtdBringsInAFile) {
  for (const char* pName : {"secret", "secret.dtd"}) {
    for (const std::string& strDocument : Documents(Path(pName))) {
      EXPECT_EQ(std::string::npos, Outcome(strDocument).find(SECRET)) << strDocument;
    }
  }
}

TEST_F(ConfigHostileTest, NoEntityAndNoDtdBringsInAFileWhateverTheProcessHasSet) {
  const RashDefaults stRash;
  for (const char* pName : {"secret", "secret.dtd"}) {
    for (const std::string& strDocument : Documents("file://" + Path(pName))) {
      EXPECT_EQ(std::string::npos, Outcome(strDocument).find(SECRET)) << strDocument;
    }
  }
}

// The same documents read without our settings show the text: so the tests above can fail.
TEST_F(ConfigHostileTest, DocumentsWouldBringInTheFileIfTheyCould) {
  const std::string strDocument = Documents(Path("secret")).front();
  xmlDocPtr pDocument = xmlReadMemory(strDocument.data(), static_cast<int>(strDocument.size()),
                                      nullptr, nullptr, XML_PARSE_NOENT);
  xmlChar* pText = xmlNodeGetContent(xmlDocGetRootElement(pDocument));
  EXPECT_EQ(std::string("[") + SECRET + "]", reinterpret_cast<char*>(pText));
  xmlFree(pText);
  xmlFreeDoc(pDocument);
}

TEST_F(ConfigHostileTest, NobodyIsCalledOverTheNetwork) {
  const Listener stListener;
  ASSERT_TRUE(stListener.Ready());
  for (const std::string& strDocument : Documents(stListener.Url())) {
    Outcome(strDocument);
    const RashDefaults stRash;
    Outcome(strDocument);
    EXPECT_FALSE(stListener.Reached()) << strDocument;
  }
}

TEST_F(ConfigHostileTest, DeclaredEntitiesAreLeftOutOfValues) {
  EXPECT_EQ("a=12", Outcome("<!DOCTYPE r [<!ENTITY e '<b>3</b>'>]><r><a>1&e;2</a></r>"));
}

// Every level names the one below ten times; at full length that would be a thousand million.
std::string Laughs(const std::string& strRoot) {
  std::string strDocument = "<!DOCTYPE r [<!ENTITY e0 'lol'>";
  for (int i = 1; i < 10; ++i) {
    const std::string strBelow = "&e" + std::to_string(i - 1) + ";";
    strDocument += "<!ENTITY e" + std::to_string(i) + " '";
    for (int iTimes = 0; iTimes < 10; ++iTimes) {
      strDocument += strBelow;
    }
    strDocument += "'>";
  }
  return strDocument + "]>" + strRoot;
}

double CpuSeconds() { return static_cast<double>(clock()) / CLOCKS_PER_SEC; }

long PeakKilobytes() {
  rusage stUsage{};
  getrusage(RUSAGE_SELF, &stUsage);
  return stUsage.ru_maxrss;
}

TEST_F(ConfigHostileTest, BillionLaughsCostNothing) {
  const double dBegin = CpuSeconds();
  const long iPeak = PeakKilobytes();
  for (const char* pRoot : {"<r><a>1&e9;</a></r>", "<r><a x='1&e9;'/></r>",
                            "<r xmlns='&e9;'><a>1</a></r>", "<r><a xml:id='&e9;'>1</a></r>"}) {
    const std::string strOutcome = Outcome(Laughs(pRoot));
    EXPECT_LT(strOutcome.size(), 100u) << pRoot;
  }
  EXPECT_LT(CpuSeconds() - dBegin, 1.0);
  EXPECT_LT(PeakKilobytes() - iPeak, 100 * 1024);
}

TEST_F(ConfigHostileTest, LongEntityNamedOftenCostsNothing) {
  std::string strDocument = "<!DOCTYPE r [<!ENTITY e '" + std::string(50000, 'x') + "'>]><r><a>";
  for (int i = 0; i < 50000; ++i) {
    strDocument += "&e;";
  }
  const double dBegin = CpuSeconds();
  const long iPeak = PeakKilobytes();
  EXPECT_LT(Outcome(strDocument + "</a></r>").size(), 100u);
  EXPECT_LT(CpuSeconds() - dBegin, 2.0);
  EXPECT_LT(PeakKilobytes() - iPeak, 200 * 1024);
}

TEST_F(ConfigHostileTest, EntitiesInACircleEnd) {
  const char szDocument[] =
      "<!DOCTYPE r [<!ENTITY a '&b;'><!ENTITY b '&a;'>]><r><a x='&a;'>1&a;</a></r>";
  EXPECT_EQ("(refused)", Outcome(szDocument));
}

TEST_F(ConfigHostileTest, DeepNestingIsRefused) {
  std::string strDocument;
  for (int i = 0; i < 100000; ++i) {
    strDocument += "<a>";
  }
  EXPECT_EQ("(refused)", Outcome(strDocument));
}

TEST_F(ConfigHostileTest, KeysOfTheDeepestNestingAllowedAreWhole) {
  const int DEPTH = 255;  // below the root
  std::string strOpen;
  std::string strClose;
  std::string strKey;
  for (int i = 0; i < DEPTH; ++i) {
    strOpen += "<ab>";
    strClose += "</ab>";
    strKey += i == 0 ? "ab" : ".ab";
  }
  EXPECT_EQ(strKey + "=1", Outcome("<r>" + strOpen + "1" + strClose + "</r>"));
}

}  // namespace
