#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "client_program.h"
#include "test_support.h"

namespace {

typedef std::vector<std::string> Texts_t;

// What gdb prints about a process ("-p", pid) or a core (program, file) when it is asked this.
std::string AskGdb(const Texts_t& vecTarget, const Texts_t& vecCommands) {
  Texts_t vecArguments{"gdb",
                       "-nx",
                       "-batch",
                       "-iex",
                       "set debuginfod enabled off",
                       "-iex",
                       "set auto-load safe-path " GDB_SAFE_PATH};
  vecArguments.insert(vecArguments.end(), vecTarget.begin(), vecTarget.end());
  for (const std::string& strCommand : vecCommands) {
    vecArguments.insert(vecArguments.end(), {"-ex", strCommand});
  }
  const ProgramResult_t stResult = RunProgram(vecArguments);
  return stResult.strOut + stResult.strError;
}

// Empty, or why gdb can not be asked here.
std::string WhyNoGdb() {
  const ProgramResult_t stResult =
      RunProgram({"gdb", "-nx", "-batch", "-ex", "python print(6 * 7)"});
  if (stResult.iExit == 127) {
    return "gdb is not installed";
  }
  return stResult.strOut == "42\n" ? "" : "this gdb has no Python: " + stResult.strError;
}

class GdbTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string strWhyNot = WhyNoGdb();
    if (!strWhyNot.empty()) {
      GTEST_SKIP() << strWhyNot;
    }
  }

  // The program in its own directory; its input ends, and so does it, with the test.
  int RunProgramHere(int iInput, int iOutput, bool bDie) const {
    const std::string strQueue = std::to_string(m_stQueueKey.Key());
    const std::string strTable = std::to_string(m_stTableKey.Key());
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);  // else Yama may refuse all but its ancestors
    if (chdir(m_stDirectory.Path().c_str()) != 0 || dup2(iInput, STDIN_FILENO) == -1 ||
        dup2(iOutput, STDOUT_FILENO) == -1) {
      return 1;
    }
    execl(GDB_PROGRAM, GDB_PROGRAM, strQueue.c_str(), strTable.c_str(), bDie ? "die" : nullptr,
          nullptr);
    return 1;
  }

  // Starts a process that lives until the test is over.
  void StartLiving() {
    int szInput[2];
    int szOutput[2];
    ASSERT_EQ(0, pipe(szInput) | pipe(szOutput));
    m_pProcess = std::make_unique<ForkedPeer>([&] {
      close(szInput[1]);
      close(szOutput[0]);
      return RunProgramHere(szInput[0], szOutput[1], false);
    });
    close(szInput[0]);
    close(szOutput[1]);
    m_iInput = szInput[1];
    char szLine[6];
    const bool bReady = read(szOutput[0], szLine, sizeof(szLine)) == sizeof(szLine);
    close(szOutput[0]);
    ASSERT_TRUE(bReady);
  }

  std::string AskLiving(const Texts_t& vecCommands) const {
    return AskGdb({"-p", std::to_string(m_pProcess->Pid())}, vecCommands);
  }

  // The core that the system writes of a process that dies; "" when it sends it elsewhere.
  std::string SystemCore() const {
    ForkedPeer([&] { return RunProgramHere(STDIN_FILENO, STDOUT_FILENO, true); }).Wait();
    for (const auto& stEntry : std::filesystem::directory_iterator(m_stDirectory.Path())) {
      if (stEntry.path().filename().string().rfind("core", 0) == 0) {
        return stEntry.path();
      }
    }
    return "";
  }

  void TearDown() override {
    if (m_iInput != -1) {
      close(m_iInput);
      EXPECT_EQ(0, m_pProcess->Wait()) << "the process did not go on as if nothing had been";
    }
  }

  const PrivateDirectory m_stDirectory;
  const PrivateKey m_stQueueKey;
  const PrivateKey m_stTableKey;
  std::unique_ptr<ForkedPeer> m_pProcess;
  int m_iInput = -1;
};

bool IsRefused(const std::string& strOutput) {
  return strOutput.find("ptrace: Operation not permitted") != std::string::npos;
}

void ExpectAll(const std::string& strOutput, const Texts_t& vecParts) {
  for (const std::string& strPart : vecParts) {
    EXPECT_NE(std::string::npos, strOutput.find(strPart)) << strPart << "\nis not in\n"
                                                          << strOutput;
  }
}

const Texts_t ALL_OBJECTS = {"p g_stQueue",   "p *g_stQueue.m_pShmHead",
                             "p g_stTable",   "p g_stNoQueue",
                             "p g_stNoTable", "p g_stTable.m_sAllocator",
                             "p *g_pPool",    "p g_stFirst",
                             "p g_stHead",    "p g_iKey"};

// The texts are built from the formats' figures: a message takes 4 bytes more than it has; ten
// blocks of 40 bytes are carved at a time, of which the two entries have one each.
const Texts_t ALL_TEXTS = {
    ": 3 messages, ring of 200 bytes, 88 used, reader at 154, writer at 42 = {"
    "[0] = 16 bytes \"hello, \\\"worker\\\"\\x0a\", [1] = 0 bytes \"\", [2] = 60 bytes \"" +
        std::string(48, 'x') + "\"...}",
    "$2 = 3 messages, ring of 200 bytes",
    "$3 = HashMap of 2 entries in 1 bucket, segment ",
    ", longest chain ever 3 = {[\"greeting\"] = 6 bytes \"hello\\x00\", "
    "[\"number\"] = 8 bytes \"\\x02\\x01\\x00\\x00\\x00\\x00\\x00\\x00\"}",
    "$4 = MessageQueue, segment -1, FIFO descriptor -1, not attached\n",
    "$5 = HashMap, not attached\n",
    "$6 = ShmAllocator of 8388608 bytes, segment ",
    ": 2 blocks handed out, 320 bytes free in blocks, 3145248 never carved = {"
    "40 bytes = 8 free blocks}",
    "$7 = MachinePool of 2 machines, deadlines to look at: 2 of machines, 1 of states = {"
    "[5] = (anonymous namespace)::Session 5, state 2, deadline ",
    "[17] = (anonymous namespace)::Session 17, state -1, deadline ",
    "Session 5, state 2 = {parent = 4, first message = descriptor 7, peer 192.0.2.1:4711, "
    "local unknown, from = \"gateway\", machine deadline = ",
    "state deadline = 2023-11-14 22:13:50 UTC, reserved slots = 0}",
    "$9 = no descriptor, peer 127.0.0.1:80, local 10.0.0.2:6399\n",
    "$10 = 0x00000000000011220000000000000033\n",
};

TEST_F(GdbTest, ALivingProcessShowsWhatItsObjectsMean) {
  StartLiving();
  const std::string strOutput = AskLiving(ALL_OBJECTS);
  if (IsRefused(strOutput)) {
    GTEST_SKIP() << strOutput;
  }
  ExpectAll(strOutput, ALL_TEXTS);
}

TEST_F(GdbTest, ACoreOfTheSystemsShowsTheSharedMemoryToo) {
  const std::string strCore = SystemCore();
  if (strCore.empty()) {
    GTEST_SKIP() << "the system writes no core here: " << ReadFile("/proc/sys/kernel/core_pattern");
  }
  ExpectAll(AskGdb({GDB_PROGRAM, strCore}, ALL_OBJECTS), ALL_TEXTS);
}

TEST_F(GdbTest, ACoreThatGdbMakesShowsTheSharedMemoryToo) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "gdb would read all of the 16 TB of addresses that the sanitizer reserves";
#endif
  StartLiving();
  const std::string strCore = m_stDirectory.File("core");
  const std::string strOutput = AskLiving({"generate-core-file " + strCore});
  if (IsRefused(strOutput)) {
    GTEST_SKIP() << strOutput;
  }
  ASSERT_EQ(0, access(strCore.c_str(), R_OK)) << strOutput;
  ExpectAll(AskGdb({GDB_PROGRAM, strCore}, ALL_OBJECTS), ALL_TEXTS);
}

TEST_F(GdbTest, GarbageIsShownAsSuch) {
  StartLiving();
  const std::string strOutput =
      AskLiving({"p *(MessageQueue*)g_szGarbage", "p *(HashMap*)g_szGarbage",
                 "p *(ShmAllocator*)g_szGarbage", "p *(MachinePool*)g_szGarbage",
                 "p *(StateMachine*)g_szGarbage", "p *(InternalHead_t*)g_szGarbage"});
  if (IsRefused(strOutput)) {
    GTEST_SKIP() << strOutput;
  }
  const std::string strNoMemory = "damaged: no memory at 0x5a5a5a5a5a5a5a";
  ExpectAll(strOutput, {"$1 = MessageQueue, " + strNoMemory, "$2 = HashMap, " + strNoMemory,
                        "$3 = ShmAllocator, " + strNoMemory, "$4 = MachinePool, " + strNoMemory,
                        "$5 = StateMachine 1515870810, state 1515870810 = {parent = 1515870810, ",
                        "$6 = descriptor 1515870810, peer 90.90.90.90:1515870810"});
  EXPECT_EQ(std::string::npos, strOutput.find("Python Exception")) << strOutput;
}

// Each fault is one that a loop without a bound, or a read without a look at the size, would not
// survive. gdb makes them in the segments.
TEST_F(GdbTest, DamagedSegmentsAreShownAsFarAsTheyAreWhole) {
  StartLiving();
  const std::string strFirst =
      "((unsigned long*)(g_stTable.m_pBase + *(unsigned long*)((char*)g_stTable.m_pHead + 64)))[0]";
  const std::string strOutput = AskLiving(
      {"set var g_stQueue.m_pShmHead->iReadOffset = 158", "p g_stQueue",
       "set var g_stQueue.m_pShmHead->iReadOffset = 200", "p g_stQueue",
       "set var g_stQueue.m_pShmHead->iSize = 0", "p g_stQueue",
       // The first entry becomes its own successor, then one behind the segment's end.
       "set var " + strFirst + " = *(unsigned long*)((char*)g_stTable.m_pHead + 64)", "p g_stTable",
       "set var " + strFirst + " = 8388600", "p g_stTable", "set var g_stTable.m_pHead->iReady = 0",
       "p g_stTable", "set var g_stTable.m_sAllocator.m_pHead->szFreeList[4] = 8388600",
       "p g_stTable.m_sAllocator"});
  if (IsRefused(strOutput)) {
    GTEST_SKIP() << strOutput;
  }
  ExpectAll(strOutput,
            {"84 used, reader at 158, writer at 42, damaged: a message of 1819043176 bytes where "
             "80 are left = {damaged = a message of",
             "damaged: offsets 200 and 42 in a ring of 200 bytes",
             "ring of 0 bytes: its creator is not through, or died",
             "[\"greeting\"] = 6 bytes \"hello\\x00\", [\"greeting\"] = 6 bytes \"hello\\x00\", "
             "[damaged] = a chain that goes on behind its 2 entries}",
             "[\"greeting\"] = 6 bytes \"hello\\x00\", [damaged] = offset 8388600 in a segment of "
             "8388608 bytes}",
             "HashMap, damaged: a table that is not initialised",
             "damaged = offset 8388600 in a segment of 8388608 bytes}"});
  EXPECT_EQ(std::string::npos, strOutput.find("Python Exception")) << strOutput;
}

}  // namespace
