#include "zel/core/require_new_alloc.h"

#include <gtest/gtest.h>

#include <new>
#include <thread>

#include "zel/core/error.h"

namespace zel {
namespace {

class CHeapOnly : public TRequireNewAlloc<CBase, CHeapOnly> {
 public:
  explicit CHeapOnly(int value) : value(value) {}
  int value;
};

class CHeapOnlyUnnamed : public TRequireNewAlloc<> {};

struct CHolder {
  CHeapOnly member{1};
};

TEST(RequireNewAllocTest, HeapObjectsAreAccepted) {
  P<CHeapOnly> a = createObject<CHeapOnly>(3);
  P<CHeapOnly> b = createObject<CHeapOnly>(4);
  EXPECT_EQ(a->value + b->value, 7);
}

TEST(RequireNewAllocTest, ObjectsBuiltElsewhereAreRefusedByName) {
  try {
    CHeapOnly onStack(1);
    FAIL() << "a stack object was accepted";
  } catch (const CError& e) {
    EXPECT_EQ(e.getMessage(), "Objects of class zel::(anonymous namespace)::CHeapOnly must be "
                              "allocated with new.");
  }
  EXPECT_THROW(CHolder(), CError);
  try {
    CHeapOnlyUnnamed onStack;
    FAIL() << "a stack object was accepted";
  } catch (const CError& e) {
    EXPECT_TRUE(e.getMessage().getWxString().StartsWith("Objects of class "));
    EXPECT_TRUE(e.getMessage().getWxString().EndsWith(" must be allocated with new."));
  }
  // A refused object leaves no flag behind for the next one.
  EXPECT_NO_THROW(createObject<CHeapOnly>(2));
  EXPECT_THROW(CHeapOnly(2), CError);
}

struct CFlagReader : CRequireNewAllocFlag {
  static bool raised() { return getAllocatedWithNew()->getValue(); }
};

// A base whose allocation looks at the flag and may fail.
class CFlagProbe : public CBase {
 public:
  static bool flagRaised() { return CFlagReader::raised(); }
  static inline bool failNext = false;
  static inline bool raisedWhenAllocating = false;
  static void* operator new(std::size_t size, const RawNew& raw) {
    raisedWhenAllocating = flagRaised();
    if (failNext) {
      failNext = false;
      throw std::bad_alloc();
    }
    return CBase::operator new(size, raw);
  }
  static void operator delete(void* p, const RawNew& raw) noexcept { CBase::operator delete(p, raw); }
  static void operator delete(void* p) noexcept { CBase::operator delete(p); }
};

class CProbedHeapOnly : public TRequireNewAlloc<CFlagProbe, CProbedHeapOnly> {};

TEST(RequireNewAllocTest, FlagIsRaisedBeforeTheMemoryIsTaken) {
  CFlagProbe::raisedWhenAllocating = false;
  EXPECT_NO_THROW(createObject<CProbedHeapOnly>());
  EXPECT_TRUE(CFlagProbe::raisedWhenAllocating);
  EXPECT_FALSE(CFlagProbe::flagRaised());
}

TEST(RequireNewAllocTest, FailedAllocationLeavesNoFlagBehind) {
  CFlagProbe::failNext = true;
  EXPECT_THROW(createObject<CProbedHeapOnly>(), std::bad_alloc);
  EXPECT_FALSE(CFlagProbe::flagRaised());
  // Otherwise this stack object would be taken for one made with new.
  EXPECT_THROW(CProbedHeapOnly(), CError);
}

TEST(RequireNewAllocTest, FlagIsPerThread) {
  // An allocation on one thread does not license a stack object on another.
  bool refused = false;
  std::thread([&] {
    try {
      CHeapOnly onStack(1);
    } catch (const CError&) {
      refused = true;
    }
  }).join();
  EXPECT_TRUE(refused);
  std::thread([] { EXPECT_EQ(createObject<CHeapOnly>(9)->value, 9); }).join();
}

}  // namespace
}  // namespace zel
