// A host as it stands outside: it links the library and what its headers hand out.
#include <mysql/mysql.h>
#include <zelk_common/config_generator.h>
#include <zelk_common/my_uuid.h>
#include <zelk_common/mysql_obj.h>
#include <zelk_common/string_util.h>

#include <cstdio>

int main() {
  xmlXPathFreeObject(nullptr);
  const bool bClient = mysql_get_client_info() != nullptr;
  const bool bUuid = MyUuid::NewUuid().size() == 36;
  puts(FormatString("host: %s", bClient && bUuid ? "linked" : "broken"));
  return 0;
}
