#include "object.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <type_traits>

#include "test_support.h"

namespace {

class Shown : public Object {
 public:
  explicit Shown(bool* pDestroyed) : m_pDestroyed(pDestroyed) {}
  ~Shown() override { *m_pDestroyed = true; }
  void Dump(int iFD) override { dprintf(iFD, "m_iID=\"%u\"\n", 7u); }

 private:
  bool* m_pDestroyed;
};

TEST(ObjectTest, IsAbstractAndDestroyedThroughItsBase) {
  EXPECT_TRUE(std::is_abstract<Object>::value);
  bool bDestroyed = false;
  std::unique_ptr<Object> pObject = std::make_unique<Shown>(&bDestroyed);
  pObject.reset();
  EXPECT_TRUE(bDestroyed);
}

TEST(ObjectTest, DumpWritesToTheGivenDescriptor) {
  bool bDestroyed = false;
  Shown stShown(&bDestroyed);
  Object& stObject = stShown;
  EXPECT_EQ("m_iID=\"7\"\n", CaptureDescriptor([&](int iFD) { stObject.Dump(iFD); }));
}

}  // namespace
