#include "class_factory.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "test_support.h"

namespace {

class Named : public Object {
 public:
  explicit Named(char cKind) : m_cKind(cKind) {}
  void Dump(int /*iFD*/) override {}
  char Kind() const { return m_cKind; }

 private:
  char m_cKind;
};

Object* MakeF() { return new Named('f'); }
Object* MakeG() { return new Named('g'); }
Object* MakeNothing() { return nullptr; }

// A factory of one's own: the process-wide one can not be emptied between tests.
class OwnFactory : public ClassFactory {
 public:
  // The kind of the object made under a name or number; '-' when none is made.
  template <typename Id>
  char KindOf(Id id) {
    const std::unique_ptr<Object> pObject(NewObject(id));
    const auto* pNamed = dynamic_cast<Named*>(pObject.get());
    return pNamed == nullptr ? '-' : pNamed->Kind();
  }
};

TEST(ClassFactoryTest, InstanceIsOneObject) {
  EXPECT_EQ(&ClassFactory::Instance(), &ClassFactory::Instance());
}

TEST(ClassFactoryTest, FirstRegistrationOfANameWins) {
  OwnFactory stFactory;
  EXPECT_TRUE(stFactory.AddObject("A", MakeF));
  EXPECT_FALSE(stFactory.AddObject("A", MakeG));
  EXPECT_EQ('f', stFactory.KindOf("A"));
}

TEST(ClassFactoryTest, NumbersAreTheirDecimalText) {
  OwnFactory stFactory;
  EXPECT_TRUE(stFactory.AddObject(12, MakeF));
  EXPECT_TRUE(stFactory.AddObject(-3, MakeG));
  EXPECT_EQ('f', stFactory.KindOf("12"));
  EXPECT_EQ('g', stFactory.KindOf("-3"));
  EXPECT_EQ('g', stFactory.KindOf(-3));
  EXPECT_EQ(1u, stFactory.ObjectMap().count("-3"));
}

TEST(ClassFactoryTest, NumbersAndNamesShareOneKeySpace) {
  OwnFactory stFactory;
  EXPECT_TRUE(stFactory.AddObject(7, MakeF));
  EXPECT_FALSE(stFactory.AddObject("7", MakeG));
  EXPECT_TRUE(stFactory.AddObject("8", MakeG));
  EXPECT_FALSE(stFactory.AddObject(8, MakeF));
  EXPECT_EQ('g', stFactory.KindOf(8));
}

TEST(ClassFactoryTest, SmallestNumberHasItsWholeText) {
  OwnFactory stFactory;
  EXPECT_TRUE(stFactory.AddObject(-2147483647 - 1, MakeF));
  EXPECT_EQ("-2147483648", stFactory.ObjectMap().begin()->first);
}

TEST(ClassFactoryTest, UnknownNameGivesNullAndIsNotRegisteredByAsking) {
  OwnFactory stFactory;
  EXPECT_EQ(nullptr, stFactory.NewObject("never registered"));
  EXPECT_EQ(nullptr, stFactory.NewObject(99));
  EXPECT_TRUE(stFactory.ObjectMap().empty());
}

TEST(ClassFactoryTest, EmptyNameAndNullCreatorAreAccepted) {
  OwnFactory stFactory;
  EXPECT_TRUE(stFactory.AddObject("", MakeF));
  EXPECT_TRUE(stFactory.AddObject("null", nullptr));
  EXPECT_FALSE(stFactory.AddObject("null", MakeF));
  const std::unique_ptr<Object> pObject(stFactory.NewObject(""));
  EXPECT_NE(nullptr, pObject);
  EXPECT_EQ(nullptr, stFactory.ObjectMap().at("null"));
}

TEST(ClassFactoryTest, CreatorsOwnFailureIsPassedThrough) {
  OwnFactory stFactory;
  ASSERT_TRUE(stFactory.AddObject("nothing", MakeNothing));
  EXPECT_EQ(nullptr, stFactory.NewObject("nothing"));
}

TEST(ClassFactoryTest, NameIsCopied) {
  OwnFactory stFactory;
  char szName[] = "abc";
  ASSERT_TRUE(stFactory.AddObject(szName, MakeF));
  szName[0] = 'x';
  EXPECT_EQ(1u, stFactory.ObjectMap().count("abc"));
}

TEST(ClassFactoryTest, ObjectMapListsNamesInByteOrder) {
  OwnFactory stFactory;
  for (const char* pName : {"b", "B", "10", "9", "\xe4"}) {
    stFactory.AddObject(pName, MakeF);
  }
  std::vector<std::string> vecNames;
  for (const auto& stEntry : stFactory.ObjectMap()) {
    vecNames.push_back(stEntry.first);
  }
  EXPECT_EQ((std::vector<std::string>{"10", "9", "B", "b", "\xe4"}), vecNames);
}

TEST(ClassFactoryTest, LoadingTheLibraryRegistersItsOwnMethod) {
  EXPECT_EQ(1u, ClassFactory::Instance().ObjectMap().count("ExecuteShell2"));
}

TEST(ClassFactoryTest, DumpWritesNothing) {
  EXPECT_EQ("", CaptureDescriptor([](int iFD) { ClassFactory::Instance().Dump(iFD); }));
}

}  // namespace
