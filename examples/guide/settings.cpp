// The same settings from XML and from INI, with a reference in each; and XML for the next start.
#include <cstdio>
#include <cstring>

#include "config.h"
#include "config_generator.h"
#include "ini_config.h"

const char XML[] =
    "<server>"
    "  <run dir='/run/shop'/>"
    "  <queue size='64K'>@(run.dir)/queue</queue>"
    "  <worker>first</worker><worker>second</worker>"
    "</server>";

const char INI[] =
    "[run]\n"
    "dir = /run/shop\n"
    "[queue]\n"
    "path = @(run.dir)/queue\n"
    "size = 64K\n";

int main() {
  Config stConfig;
  IniConfig stIni;
  if (stConfig.LoadFromMemory(XML, strlen(XML)) != 0 || stIni.LoadFromMemory(INI) != 0) return 1;
  printf("XML: %s of %ld bytes\n", stConfig.StringValue("queue"), stConfig.IntValue("queue.size"));
  printf("INI: %s of %ld bytes\n", stIni.GetValue("queue", "path").c_str(),
         stIni.IntValue("queue", "size"));
  for (const std::string& strWorker : stConfig.StringValues("worker")) {
    printf("worker %s\n", strWorker.c_str());
  }
  printf("missing: \"%s\", in XML %ld, in INI %ld\n", stConfig.StringValue("no.such"),
         stConfig.IntValue("no.such"), stIni.IntValue("no", "such"));
  ConfigGenerator stGenerator;
  stGenerator.SetRootName("server");
  stGenerator.SetKeyValue("queue.path", stConfig.StringValue("queue"));
  printf("%s", stGenerator.GenerateContent().c_str());
}
