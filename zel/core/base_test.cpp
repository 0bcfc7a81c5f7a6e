#include "zel/core/base.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "zel/core/error.h"

namespace zel {
namespace {

std::atomic<int> g_destroyed{0};

class CCounted : public CBase {
 public:
  explicit CCounted(int value = 0) : value(value) {}
  ~CCounted() override { ++g_destroyed; }
  int value;
};

class CDerived : public CCounted {};

class BaseTest : public ::testing::Test {
 protected:
  void SetUp() override { g_destroyed = 0; }
};

TEST_F(BaseTest, NewAndCopiedObjectsStartWithOneReference) {
  P<CCounted> a = createObject<CCounted>(7);
  EXPECT_EQ(a->getRefCount(), 1);
  P<CCounted> extra1 = a, extra2 = a;
  EXPECT_EQ(a->getRefCount(), 3);
  // A copy is a new object with a fresh count, whatever its source's count.
  P<CCounted> copy = createObject<CCounted>(*a);
  EXPECT_EQ(copy->getRefCount(), 1);
  EXPECT_EQ(copy->value, 7);
  // Assignment copies the value but never the count.
  *copy = *a;
  EXPECT_EQ(copy->getRefCount(), 1);
  EXPECT_EQ(a->getRefCount(), 3);
}

TEST_F(BaseTest, PointerCopyMoveAndAssignmentKeepCountsRight) {
  P<CCounted> a = createObject<CCounted>();
  {
    P<CCounted> b(a);
    EXPECT_EQ(a->getRefCount(), 2);
    P<CCounted> c(std::move(b));
    EXPECT_TRUE(b.isNull());
    EXPECT_EQ(a->getRefCount(), 2);
    c = c;  // self-assignment keeps the object alive
    EXPECT_EQ(a->getRefCount(), 2);
    P<CBase> base = c;  // implicit up-cast adds a reference
    EXPECT_EQ(a->getRefCount(), 3);
  }
  EXPECT_EQ(a->getRefCount(), 1);
  EXPECT_EQ(g_destroyed, 0);
  // Assigning the only owner to itself through another path must not free it
  // before the new reference is taken.
  P<CCounted>& alias = a;
  a = alias.get();
  EXPECT_EQ(a->getRefCount(), 1);
  a = nullptr;
  EXPECT_EQ(g_destroyed, 1);
}

TEST_F(BaseTest, RawPointerAddsAReferenceAndAdoptTakesIt) {
  CCounted* raw = new (CBase::RawNew{}) CCounted();
  {
    P<CCounted> owner(raw, adoptRef);
    P<CCounted> second(raw);
    EXPECT_EQ(raw->getRefCount(), 2);
  }
  EXPECT_EQ(g_destroyed, 1);
}

// Makes a P of itself in its destructor, as clean-up code calling helpers
// that take P arguments does.
class CSelfReferencingInDestructor : public CBase {
 public:
  ~CSelfReferencingInDestructor() override {
    countInDestructor = getRefCount();
    {
      P<CSelfReferencingInDestructor> self(this);
      countWithSelfRef = getRefCount();
    }
    ++g_destroyed;
  }
  static inline int countInDestructor = 0;
  static inline int countWithSelfRef = 0;
};

TEST_F(BaseTest, PointerMadeOfThisInDestructorDoesNotDeleteTwice) {
  createObject<CSelfReferencingInDestructor>();  // last reference dropped at once
  EXPECT_EQ(g_destroyed, 1);  // ASan reports a second delete
  EXPECT_EQ(CSelfReferencingInDestructor::countInDestructor, static_cast<int>(0xC0000000));
  EXPECT_EQ(CSelfReferencingInDestructor::countWithSelfRef, static_cast<int>(0xC0000001));
}

// Survives its last release by keeping itself in a global.
class CResurrecting : public CBase {
 public:
  ~CResurrecting() override { ++g_destroyed; }
  static inline P<IBase> keeper;
  static inline bool keepAlive = true;

 protected:
  void deleteThis() override {
    if (keepAlive) {
      keeper = cancelDeleteThisAndReturnNewReference();
    } else {
      CBase::deleteThis();
    }
  }
};

TEST_F(BaseTest, CancelledDeletionLeavesExactlyOneReference) {
  CResurrecting* raw;
  {
    P<CResurrecting> p = createObject<CResurrecting>();
    raw = p.get();
  }
  EXPECT_EQ(g_destroyed, 0);
  ASSERT_TRUE(CResurrecting::keeper);
  EXPECT_EQ(raw->getRefCount(), 1);
  CResurrecting::keepAlive = false;
  CResurrecting::keeper = nullptr;
  EXPECT_EQ(g_destroyed, 1);
}

TEST_F(BaseTest, ConcurrentCopiesDeleteExactlyOnce) {
  P<CCounted> shared = createObject<CCounted>();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([copy = shared] {
      for (int i = 0; i < 20000; ++i) {
        P<CCounted> local = copy;
        P<CCounted> other(std::move(local));
      }
    });
  }
  shared = nullptr;
  for (auto& t : threads) t.join();
  EXPECT_EQ(g_destroyed, 1);
}

class CRefusesCasts : public CCounted {
 public:
  bool checkCastAllowed(const std::type_info& type) const override {
    return type != typeid(CRefusesCasts);
  }
};

TEST_F(BaseTest, CastsConsultTheTypeAndTheObject) {
  P<CCounted> derived = createObject<CDerived>();
  EXPECT_TRUE(dynamicCast<CDerived>(derived));
  EXPECT_EQ(checkedCast<CDerived>(derived).get(), derived.get());

  P<CCounted> plain = createObject<CCounted>();
  EXPECT_FALSE(dynamicCast<CDerived>(plain));
  EXPECT_THROW(checkedCast<CDerived>(plain), CCastError);

  P<CCounted> refusing = createObject<CRefusesCasts>();
  EXPECT_FALSE(dynamicCast<CRefusesCasts>(refusing));
  EXPECT_THROW(checkedCast<CRefusesCasts>(refusing), CCastError);

  EXPECT_TRUE(checkedCast<CDerived>(P<CCounted>()).isNull());
}

TEST_F(BaseTest, SimpleTypeBoxesAValue) {
  P<TSimpleType<int>> box = createObject<TSimpleType<int>>(5);
  P<TSimpleType<int>> alias = box;
  alias->setValue(6);
  EXPECT_EQ(box->getValue(), 6);
  EXPECT_EQ(createObject<TSimpleType<double>>()->getValue(), 0.0);
}

}  // namespace
}  // namespace zel
