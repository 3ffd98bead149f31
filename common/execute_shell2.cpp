#include "execute_shell2.h"

#include "class_factory.h"
#include "execute_shell.h"

namespace {

const char NAME[] = "ExecuteShell2";

Object* Create() {
  auto* pMethod = new ExecuteShell2;
  pMethod->Method(NAME);
  return pMethod;
}

// NOLINTNEXTLINE(cert-err58-cpp): without memory here the library does not load
[[maybe_unused]] const bool _bUnused = ClassFactory::Instance().AddObject(NAME, Create);

}  // namespace

void ExecuteShell2::Command(const std::string& strCommand) {
  Params_t mapNew{{"command", strCommand}};  // may throw: then the former one stays
  m_mapParams.erase("command");
  m_mapParams.merge(mapNew);
}

int ExecuteShell2::Do() {
  ExecuteShell stShell;
  stShell.Command(Command());
  return stShell.Do();
}
