#include "zel/core/containers.h"

#include <gtest/gtest.h>

#include "zel/core/error.h"
#include "zel/core/string.h"

namespace zel {
namespace {

TEST(ContainersTest, ArrayChecksPositions) {
  TArray<String> a{"x", "y"};
  a.add("z");
  EXPECT_EQ(a.getCount(), 3);
  EXPECT_EQ(a.getAt(2), "z");
  EXPECT_EQ(a.indexOf("y"), 1);
  EXPECT_EQ(a.indexOf("w"), -1);
  EXPECT_THROW(a.getAt(3), CBadCollPositionError);
  EXPECT_THROW(a.getAt(-1), CBadCollPositionError);
  EXPECT_THROW(a.removeAt(3), CBadCollPositionError);
  EXPECT_THROW(a.insertAt(4, "q"), CBadCollPositionError);
  a.insertAt(3, "end");
  a.removeAt(0);
  EXPECT_EQ(a, (TArray<String>{"y", "z", "end"}));
}

TEST(ContainersTest, MapAndSetLookups) {
  TMap<String, int> m;
  m["a"] = 1;
  EXPECT_TRUE(m.contains("a"));
  ASSERT_NE(m.lookup("a"), nullptr);
  EXPECT_EQ(*m.lookup("a"), 1);
  EXPECT_EQ(m.lookup("b"), nullptr);
  TSet<int> s{3, 1, 3};
  EXPECT_EQ(s.getCount(), 2);
  EXPECT_TRUE(s.contains(1));
}

}  // namespace
}  // namespace zel
