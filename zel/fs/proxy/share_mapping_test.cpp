#include "zel/fs/proxy/share_mapping.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

#ifdef _WIN32
const char* const kRoot = "file:///C:/srv/store";
const char* const kNativeRoot = "C:\\srv\\store";
#else
const char* const kRoot = "file:///srv/store";
const char* const kNativeRoot = "/srv/store";
#endif

class ShareMappingTest : public ::testing::Test {
 protected:
  P<CShareMapping> m_mapping =
      createObject<CShareMapping>(CURI(kRoot), CURI("zel://backup/"), true);
  String root(const char* rest) const { return String(kRoot) + rest; }
};

TEST_F(ShareMappingTest, URIsBothWays) {
  EXPECT_EQ(m_mapping->toClient(CURI(root("/a%20b/c.txt"))), CURI("zel://backup/a%20b/c.txt"));
  EXPECT_EQ(m_mapping->toClient(CURI(kRoot)), CURI("zel://backup/"));
  EXPECT_TRUE(m_mapping->toClient(CURI(root("x/y"))).isEmpty());  // "/srv/storex"
  EXPECT_TRUE(m_mapping->toClient(CURI("file:///etc/passwd")).isEmpty());
  EXPECT_EQ(m_mapping->toServer(CURI("zel://backup/d/e")), CURI(root("/d/e")));
  EXPECT_TRUE(m_mapping->toServer(CURI("zel://other/d")).isEmpty());
}

TEST_F(ShareMappingTest, AreasBothWays) {
  // Inside the share: mapped.
  EXPECT_EQ(m_mapping->areaToClient(CURISelector(CURI(root("/docs")))),
            CURISelector(CURI("zel://backup/docs")));
  EXPECT_EQ(m_mapping->areaToServer(CURISelector(CURI("zel://backup/docs"))),
            CURISelector(CURI(root("/docs"))));
  // Holding the whole share: the share's own area.
  EXPECT_EQ(m_mapping->areaToClient(CURISelector(CURI("file:///"))),
            CURISelector(CURI("zel://backup/")));
  EXPECT_EQ(m_mapping->areaToClient(CURISelector("file", "*", "")),
            CURISelector(CURI("zel://backup/")));
  EXPECT_EQ(m_mapping->areaToServer(CURISelector("zel", "*", "")), CURISelector(CURI(kRoot)));
  // Elsewhere: nothing.
  EXPECT_TRUE(m_mapping->areaToClient(CURISelector(CURI("file:///etc"))).isEmpty());
  EXPECT_TRUE(m_mapping->areaToServer(CURISelector(CURI("zel://other"))).isEmpty());
  EXPECT_TRUE(m_mapping->areaToClient(CURISelector()).isEmpty());
}

TEST_F(ShareMappingTest, TextsHaveWholeOccurrencesReplaced) {
  bool replaced = false;
  EXPECT_EQ(m_mapping->mapText(root("/x/y.txt"), &replaced), "zel://backup/x/y.txt");
  EXPECT_TRUE(replaced);
  EXPECT_EQ(m_mapping->mapText("Cannot open " + String(kNativeRoot) + "/a: gone; " + kRoot, &replaced),
            "Cannot open zel://backup/a: gone; zel://backup");
  // The readable form of a root with escapes.
  P<CShareMapping> spaced =
      createObject<CShareMapping>(CURI(root("/my%20files")), CURI("zel://b"), true);
  EXPECT_EQ(spaced->mapText(root("/my%20files/x")), "zel://b/x");
  EXPECT_EQ(spaced->mapText("'" + CURI(root("/my%20files/x")).toString(false) + "'"),
            "'zel://b/x'");
  // Not whole: a longer name, or the root inside a longer path.
  EXPECT_EQ(m_mapping->mapText(root("x/y"), &replaced), root("x/y"));
  EXPECT_FALSE(replaced);
  const String nested = "/var" + String(kNativeRoot) + "/a";
  EXPECT_EQ(m_mapping->mapText(nested, &replaced), nested);
  EXPECT_FALSE(replaced);
  // A root that is the whole disk is matched as a URI only.
  P<CShareMapping> disk = createObject<CShareMapping>(CURI("file:///"), CURI("zel://all"), true);
  EXPECT_EQ(disk->mapText("file:///etc/x and /etc/x"), "zel://all/etc/x and /etc/x");
}

}  // namespace
}  // namespace zel
