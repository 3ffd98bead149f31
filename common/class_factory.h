#ifndef ZELK_COMMON_CLASS_FACTORY_H
#define ZELK_COMMON_CLASS_FACTORY_H

#include <map>
#include <string>

#include "object.h"

// Makes one new object; the caller owns it.
typedef Object* (*ObjectCreate_t)();

// Creates objects from a registered name; one instance per process.
//
// A class registers itself during static initialisation, from its own source file:
//
//   namespace {
//   Object* Create() { return new MyMethod; }
//   const bool g_bRegistered = ClassFactory::Instance().AddObject("MyMethod", Create);
//   }
//
// Instance() constructs on first use, so the order of the static initialisers does not matter.
// Not locked: register before main() or from the one thread that also creates.
// The registry is never emptied; it lives until the process exits.
class ClassFactory : public Object {
 public:
  static ClassFactory& Instance();

  ClassFactory(const ClassFactory&) = delete;
  ClassFactory& operator=(const ClassFactory&) = delete;

  // Registers pCreate under a name, which is copied; neither is checked, so an empty name and a
  // null creator are accepted. Returns false when the name is taken: the first creator stays.
  bool AddObject(const char* pId, ObjectCreate_t pCreate);

  // The same under the decimal text of iId. Numbers and names share one key space: 7 and "7" are
  // the same key.
  bool AddObject(int iId, ObjectCreate_t pCreate);

  // Calls the creator of that name and returns its result, which the caller owns; null when the
  // name is unknown. A null creator must not be called.
  Object* NewObject(const char* pId);
  Object* NewObject(int iId);

  // All registered names in ascending byte order.
  const std::map<std::string, ObjectCreate_t>& ObjectMap() const;

  // Writes nothing.
  void Dump(int iFD) override;

 protected:
  ClassFactory() = default;

 private:
  std::map<std::string, ObjectCreate_t> m_mapFactory;
};

#endif
