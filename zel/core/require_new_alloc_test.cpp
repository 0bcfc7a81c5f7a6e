#include "zel/core/require_new_alloc.h"

#include <gtest/gtest.h>

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
