#include "mysql_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;

const int PATIENCE_MS = 60000;
const char* const PROGRAM = "/usr/sbin/mariadbd";
const std::string SCRIPTS = "/usr/share/mysql/";

[[noreturn]] void Fail(const std::string& strWhat) { throw std::runtime_error(strWhat); }

// The settings that a data directory is made with and read with.
std::vector<std::string> Arguments(const std::string& strData) {
  std::vector<std::string> vecArguments{"--no-defaults",
                                        "--datadir=" + strData,
                                        "--innodb-buffer-pool-size=8M",
                                        "--innodb-buffer-pool-load-at-startup=OFF",
                                        "--innodb-buffer-pool-dump-at-shutdown=OFF",
                                        "--innodb-log-file-size=4M",
                                        "--innodb-temp-data-file-path=ibtmp1:1M:autoextend",
                                        "--innodb-flush-method=nosync",
                                        "--innodb-flush-log-at-trx-commit=0",
                                        "--key-buffer-size=1M",
                                        "--aria-pagecache-buffer-size=8M",
                                        "--performance-schema=OFF"};
  if (geteuid() == 0) {
    vecArguments.push_back("--user=root");  // it insists on being told
  }
  return vecArguments;
}

// Becomes the program, which dies with the test program.
[[noreturn]] void Exec(const std::vector<std::string>& vecArguments, const std::string& strInput,
                       const std::string& strLog, pid_t iParent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != iParent) {
    _exit(125);  // the parent was gone before the line above
  }
  std::vector<char*> vecPointers{const_cast<char*>(PROGRAM)};
  for (const std::string& strArgument : vecArguments) {
    vecPointers.push_back(const_cast<char*>(strArgument.c_str()));
  }
  vecPointers.push_back(nullptr);
  const int iLog = open(strLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  dup2(open(strInput.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
  dup2(iLog, STDOUT_FILENO);
  dup2(iLog, STDERR_FILENO);
  execv(PROGRAM, vecPointers.data());
  perror(PROGRAM);
  _exit(127);
}

pid_t Spawn(const std::vector<std::string>& vecArguments, const std::string& strInput,
            const std::string& strLog) {
  fflush(nullptr);
  const pid_t iParent = getpid();
  const pid_t iPid = fork();
  if (iPid == 0) {
    Exec(vecArguments, strInput, strLog, iParent);
  }
  return iPid;
}

// A data directory with the system's tables and one user. The program that comes with the server
// for this would also change owners in the machine's installation.
void MakeData(const std::string& strData) {
  const PrivateDirectory stDirectory;
  const std::string strLog = stDirectory.File("log");
  const std::string strUser = std::string(MysqlServer::USER) + "@'%'";
  WriteFile(stDirectory.File("sql"),
            "CREATE DATABASE mysql;\nUSE mysql;\nSET @auth_root_socket=NULL;\n" +
                ReadFile(SCRIPTS + "mysql_system_tables.sql") +
                ReadFile(SCRIPTS + "mysql_system_tables_data.sql") + "FLUSH PRIVILEGES;\n" +
                "CREATE USER " + strUser + " IDENTIFIED BY '" + MysqlServer::PASSWORD + "';\n" +
                "GRANT ALL ON *.* TO " + strUser + " WITH GRANT OPTION;\n");
  fs::create_directory(strData);
  std::vector<std::string> vecArguments = Arguments(strData);
  vecArguments.insert(vecArguments.end(), {"--bootstrap", "--log-warnings=0"});
  int iStatus = -1;
  waitpid(Spawn(vecArguments, stDirectory.File("sql"), strLog), &iStatus, 0);
  if (iStatus != 0) {
    Fail("no data directory for the server: " + ReadFile(strLog));
  }
}

// Makes the build tree's model, once, even when several test programs start at the same time.
void MakeModel(const std::string& strModel) {
  const int iLock = open((strModel + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (iLock != -1 && flock(iLock, LOCK_EX) == 0 && !fs::exists(strModel)) {
    fs::remove_all(strModel + ".new");  // of one who was killed
    MakeData(strModel + ".new");
    fs::rename(strModel + ".new", strModel);
  }
  close(iLock);
}

bool CopyModel(const std::string& strData) {
  const std::string strModel = MYSQL_MODEL_DIRECTORY;
  std::error_code stError;
  if (!fs::exists(strModel)) {
    MakeModel(strModel);
  }
  fs::copy(strModel, strData, fs::copy_options::recursive, stError);
  return !stError;
}

// A bound socket that does not listen: the kernel gives the port to nobody who asks for any free
// one, and the server, which allows sharing too, can listen on it.
int ReservePort(uint16_t& iPort) {
  const int iFD = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int iShare = 1;
  sockaddr_in stAddr{};
  stAddr.sin_family = AF_INET;
  stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t iLength = sizeof(stAddr);
  auto* pAddr = reinterpret_cast<sockaddr*>(&stAddr);
  if (setsockopt(iFD, SOL_SOCKET, SO_REUSEADDR, &iShare, sizeof(iShare)) != 0 ||
      bind(iFD, pAddr, iLength) != 0 || getsockname(iFD, pAddr, &iLength) != 0) {
    Fail("no port for the server");
  }
  iPort = ntohs(stAddr.sin_port);
  return iFD;
}

}  // namespace

MysqlServer::MysqlServer() {
  m_iPortFD = ReservePort(m_iPort);
  if (!CopyModel(m_stDirectory.File("data"))) {
    fs::remove_all(m_stDirectory.File("data"));
    MakeData(m_stDirectory.File("data"));
  }
  setenv("MYSQL_UNIX_PORT", Socket().c_str(), 1);
  Start();
}

MysqlServer::~MysqlServer() {
  End(SIGKILL);
  close(m_iPortFD);
}

void MysqlServer::Start() {
  if (m_iPid != -1) {
    return;
  }
  std::vector<std::string> vecArguments = Arguments(m_stDirectory.File("data"));
  vecArguments.insert(
      vecArguments.end(),
      {"--socket=" + Socket(), "--port=" + std::to_string(m_iPort),
       "--pid-file=" + m_stDirectory.File("pid"), "--tmpdir=" + m_stDirectory.Path(),
       std::string("--bind-address=") + HOST, "--skip-name-resolve", "--max-connections=50"});
  fs::remove(m_stDirectory.File("log"));  // that of an earlier run says that it is ready
  m_iPid = Spawn(vecArguments, "/dev/null", m_stDirectory.File("log"));
  if (!WaitUntil([this] { return IsReady(); }, PATIENCE_MS)) {
    Fail("the server does not start: " + ReadFile(m_stDirectory.File("log")));
  }
}

bool MysqlServer::IsReady() {
  const std::string strLog = ReadFile(m_stDirectory.File("log"));
  if (waitpid(m_iPid, nullptr, WNOHANG) != 0) {
    m_iPid = -1;
    Fail("the server has ended: " + strLog);
  }
  return strLog.find("ready for connections") != std::string::npos;
}

void MysqlServer::Stop() { End(SIGTERM); }

void MysqlServer::End(int iSignal) {
  if (m_iPid != -1) {
    SendSignal(m_iPid, iSignal);
    waitpid(m_iPid, nullptr, 0);
    m_iPid = -1;
  }
}
