#include "zel/fs/proxy/share_confinement.h"

#include <gtest/gtest.h>

#include <string>

#ifndef _WIN32
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "tests/support/temp_folder.h"
#include "zel/core/error.h"
#include "zel/fs/local_file_system.h"

namespace zel {
namespace {

using Target = CShareConfinement::Target;

TArray<String> parts(std::initializer_list<const char*> names) {
  TArray<String> result;
  for (const char* name : names) result.add(String(name));
  return result;
}

// Whether check() refuses; any refusal must be the documented one.
bool refused(const CShareConfinement& confinement, const TArray<String>& components,
             Target target) {
  try {
    confinement.check(components, target);
    return false;
  } catch (const CFileSystemError& e) {
    EXPECT_EQ(e.getProblem(), CFileSystemError::ProblemAccessDenied);
    EXPECT_EQ(e.getMessage(), "Proxy path leaves the shared filesystem area.");
    PC<CError> cause = e.getCause();
    EXPECT_TRUE(cause);
    if (cause) {
      EXPECT_EQ(cause->getParams().get("rootPath"), confinement.getRootPath());
      String joined;
      for (const String& c : components) {
        if (c.isEmpty()) continue;
        if (!joined.isEmpty()) joined += "/";
        joined += c;
      }
      EXPECT_EQ(cause->getParams().get("path"), joined);
    }
    return true;
  }
}

class ShareConfinementTest : public ::testing::Test {
 protected:
  ShareConfinementTest() : m_confinement(createObject<CShareConfinement>(m_root.getPath())) {
    m_fs->createFolder(uri("a"), 0);
    m_fs->ensureFileExists(uri("a/f.txt"));
  }
  ~ShareConfinementTest() override { m_fs->dispose(); }

  CURI uri(const std::string& relative) const {
    CURI result = CURI::fromNativePath(CNativePath(m_root.getPath()));
    size_t start = 0;
    for (;;) {
      const size_t slash = relative.find('/', start);
      result = result.append(String::fromUTF8(relative.substr(start, slash - start).c_str()));
      if (slash == std::string::npos) return result;
      start = slash + 1;
    }
  }

  test::CTempFolder m_root;
  P<CFileSystem> m_fs = createObject<CFileSystem>();
  P<CShareConfinement> m_confinement;
};

TEST_F(ShareConfinementTest, PlainPathsStayInside) {
  for (Target target : {CShareConfinement::FollowLinks, CShareConfinement::LinkItself,
                        CShareConfinement::ChangesEntry}) {
    EXPECT_FALSE(refused(*m_confinement, parts({"a", "f.txt"}), target));
    EXPECT_FALSE(refused(*m_confinement, parts({"a"}), target));
    // Missing parts are for the operation to report.
    EXPECT_FALSE(refused(*m_confinement, parts({"missing", "deeper", "x"}), target));
    EXPECT_FALSE(refused(*m_confinement, parts({"a", "f.txt", "below-a-file"}), target));
    // Empty components are merged away.
    EXPECT_FALSE(refused(*m_confinement, parts({"", "a", "", "f.txt"}), target));
  }
}

TEST_F(ShareConfinementTest, TheRootCanBeUsedButNotChanged) {
  EXPECT_FALSE(refused(*m_confinement, parts({}), CShareConfinement::FollowLinks));
  EXPECT_FALSE(refused(*m_confinement, parts({}), CShareConfinement::LinkItself));
  EXPECT_TRUE(refused(*m_confinement, parts({}), CShareConfinement::ChangesEntry));
  EXPECT_TRUE(refused(*m_confinement, parts({"", ""}), CShareConfinement::ChangesEntry));
}

TEST_F(ShareConfinementTest, UnvettedComponentsAreAnArgumentError) {
  EXPECT_THROW(m_confinement->check(parts({"a/f.txt"}), CShareConfinement::FollowLinks),
               CInvalidArgError);
  TArray<String> withNul;
  withNul.add(String(L"a\0b", 3));
  EXPECT_THROW(m_confinement->check(withNul, CShareConfinement::FollowLinks), CInvalidArgError);
#ifdef _WIN32
  EXPECT_THROW(m_confinement->check(parts({"a\\f.txt"}), CShareConfinement::FollowLinks),
               CInvalidArgError);
#else
  // A backslash is an ordinary character of a Linux name.
  EXPECT_FALSE(refused(*m_confinement, parts({"a\\f.txt"}), CShareConfinement::FollowLinks));
#endif
}

TEST_F(ShareConfinementTest, SaysWhatItFoundWhereTheSystemTells) {
  auto found = [&](std::initializer_list<const char*> names) {
    CShareConfinement::Found result = CShareConfinement::FoundFile;
    m_confinement->check(parts(names), CShareConfinement::FollowLinks, &result);
    return result;
  };
#ifdef _WIN32
  // The final path of a handle does not say what the entry is.
  EXPECT_EQ(found({"a", "f.txt"}), CShareConfinement::FoundUnknown);
  EXPECT_EQ(found({"a"}), CShareConfinement::FoundUnknown);
  EXPECT_EQ(found({"none"}), CShareConfinement::FoundUnknown);
#else
  EXPECT_EQ(found({"a", "f.txt"}), CShareConfinement::FoundFile);
  EXPECT_EQ(found({"a"}), CShareConfinement::FoundFolder);
  EXPECT_EQ(found({"", "a", ""}), CShareConfinement::FoundFolder);
  EXPECT_EQ(found({"none"}), CShareConfinement::FoundNothing);
#endif
}

TEST_F(ShareConfinementTest, MissingRootRefusesNothingBelowIt) {
  P<CShareConfinement> missing = createObject<CShareConfinement>(m_root.file("not-there"));
  EXPECT_FALSE(refused(*missing, parts({"x", "y"}), CShareConfinement::FollowLinks));
  EXPECT_FALSE(refused(*missing, parts({"x"}), CShareConfinement::ChangesEntry));
}

#ifndef _WIN32
std::string native(const String& path) { return path.toStdUTF8(); }

int countOpenDescriptors() {
  int count = 0;
  DIR* dir = ::opendir("/proc/self/fd");
  if (!dir) return -1;
  while (struct dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  ::closedir(dir);
  return count - 1;
}

// Both Linux methods: openat2, and the real-path comparison of kernels
// without it.
class ShareConfinementLinkTest : public ShareConfinementTest,
                                 public ::testing::WithParamInterface<bool> {
 protected:
  ShareConfinementLinkTest() {
    CShareConfinement::setPortableResolutionForTesting(GetParam());
    ::mkdir(native(m_outside.file("dir")).c_str(), 0700);
    link(m_outside.getPath(), "out");                     // absolute, outside
    link(m_outside.file("dir"), "a/deep-out");            // in a subfolder
    link(String("../") + outsideName() + "/dir", "rel");  // relative, climbing out
    link(String("a/f.txt"), "in.txt");                    // stays inside
    link(String("in.txt"), "chain.txt");                  // link to a link inside
    link(String("../a"), "a/up");                         // ".." that stays inside
    link(String("loop1"), "loop2");
    link(String("loop2"), "loop1");
    link(m_outside.file("missing.txt"), "dangling-out");
    link(String("/proc/self/cwd"), "magic");
  }
  ~ShareConfinementLinkTest() override {
    CShareConfinement::setPortableResolutionForTesting(false);
  }

  static String lastName(const String& folder) {
    const std::string path = native(folder);
    return String::fromUTF8(path.substr(path.rfind('/') + 1).c_str());
  }
  String outsideName() const { return lastName(m_outside.getPath()); }
  String rootName() const { return lastName(m_root.getPath()); }
  void link(const String& target, const char* name) {
    const std::string path = native(m_root.getPath()) + "/" + name;
    ASSERT_EQ(::symlink(native(target).c_str(), path.c_str()), 0) << name;
  }

  test::CTempFolder m_outside;
};

TEST_P(ShareConfinementLinkTest, LinksLeadingOutAreRefused) {
  const Target follow = CShareConfinement::FollowLinks;
  for (const char* name : {"out", "rel", "magic", "dangling-out"}) {
    EXPECT_TRUE(refused(*m_confinement, parts({name}), follow)) << name;
  }
  EXPECT_TRUE(refused(*m_confinement, parts({"out", "dir"}), follow));
  EXPECT_TRUE(refused(*m_confinement, parts({"a", "deep-out", "new-file"}), follow));
  EXPECT_TRUE(refused(*m_confinement, parts({"rel", "missing", "x"}), follow));
  EXPECT_TRUE(refused(*m_confinement, parts({"loop1"}), follow));
  // Links that stay inside are fine.
  EXPECT_FALSE(refused(*m_confinement, parts({"in.txt"}), follow));
  EXPECT_FALSE(refused(*m_confinement, parts({"chain.txt"}), follow));
  EXPECT_FALSE(refused(*m_confinement, parts({"a", "up", "f.txt"}), follow));
}

TEST_P(ShareConfinementLinkTest, TheEntryItselfIsNotFollowed) {
  for (Target target : {CShareConfinement::LinkItself, CShareConfinement::ChangesEntry}) {
    for (const char* name : {"out", "rel", "magic", "dangling-out", "loop1"}) {
      EXPECT_FALSE(refused(*m_confinement, parts({name}), target)) << name;
    }
    // What lies on the way is still resolved.
    EXPECT_TRUE(refused(*m_confinement, parts({"out", "dir"}), target));
    EXPECT_TRUE(refused(*m_confinement, parts({"a", "deep-out", "x"}), target));
  }
}

TEST_P(ShareConfinementLinkTest, ARootReachedThroughALinkWorks) {
  const String alias = m_outside.file("alias");
  ASSERT_EQ(::symlink(native(m_root.getPath()).c_str(), native(alias).c_str()), 0);
  P<CShareConfinement> confinement = createObject<CShareConfinement>(alias);
  EXPECT_FALSE(refused(*confinement, parts({"a", "f.txt"}), CShareConfinement::FollowLinks));
  EXPECT_FALSE(refused(*confinement, parts({"in.txt"}), CShareConfinement::FollowLinks));
  EXPECT_TRUE(refused(*confinement, parts({"out"}), CShareConfinement::FollowLinks));
}

TEST_P(ShareConfinementLinkTest, AbsoluteLinksThatStayInsideWork) {
  const Target follow = CShareConfinement::FollowLinks;
  link(m_root.getPath() + "/a/f.txt", "abs-in.txt");
  link(m_root.file("a"), "abs-a");
  link(m_root.file("abs-in.txt"), "a/abs-chain.txt");  // absolute link to an absolute link
  // Absolute, passing through the root's parent and back: still inside.
  link(m_root.getPath() + "/../" + rootName() + "/a", "abs-around");
  link(m_root.getPath() + "/../" + outsideName(), "abs-around-out");
  link(m_root.file("not-yet.txt"), "abs-dangling-in");
  EXPECT_FALSE(refused(*m_confinement, parts({"abs-in.txt"}), follow));
  EXPECT_FALSE(refused(*m_confinement, parts({"abs-a", "f.txt"}), follow));
  EXPECT_FALSE(refused(*m_confinement, parts({"abs-a", "new-file"}), follow));
  EXPECT_FALSE(refused(*m_confinement, parts({"a", "abs-chain.txt"}), follow));
  EXPECT_FALSE(refused(*m_confinement, parts({"abs-around", "f.txt"}), follow));
  EXPECT_FALSE(refused(*m_confinement, parts({"abs-a", "up", "f.txt"}), follow));
  // Followed through an absolute link, a link out is still refused.
  EXPECT_TRUE(refused(*m_confinement, parts({"abs-a", "deep-out"}), follow));
  EXPECT_TRUE(refused(*m_confinement, parts({"abs-a", "deep-out", "x"}), follow));
  EXPECT_TRUE(refused(*m_confinement, parts({"abs-around-out"}), follow));
  EXPECT_TRUE(refused(*m_confinement, parts({"abs-around-out", "dir", "x"}), follow));
  // Where a dangling link leads cannot be told by real paths.
  EXPECT_TRUE(refused(*m_confinement, parts({"abs-dangling-in"}), follow));
  EXPECT_FALSE(refused(*m_confinement, parts({"abs-dangling-in"}),
                       CShareConfinement::LinkItself));
}

TEST_P(ShareConfinementLinkTest, SaysWhatItFound) {
  using Found = CShareConfinement::Found;
  const Target follow = CShareConfinement::FollowLinks;
  const Target itself = CShareConfinement::LinkItself;
  link(m_root.file("a"), "abs-a");
  ASSERT_EQ(::mkfifo(native(m_root.file("fifo")).c_str(), 0600), 0);
  auto found = [&](const TArray<String>& components, Target target) {
    Found result = CShareConfinement::FoundFile;
    m_confinement->check(components, target, &result);
    return result;
  };
  // Either method sees a missing component.
  EXPECT_EQ(found(parts({"none"}), follow), CShareConfinement::FoundNothing);
  EXPECT_EQ(found(parts({"a", "none", "x"}), follow), CShareConfinement::FoundNothing);
  EXPECT_EQ(found(parts({"a", "f.txt", "x"}), follow), CShareConfinement::FoundNothing);
  struct Case {
    TArray<String> components;
    Target target;
    Found kind;
  };
  const Case cases[] = {
      {parts({}), follow, CShareConfinement::FoundFolder},
      {parts({"a"}), follow, CShareConfinement::FoundFolder},
      {parts({"a", "f.txt"}), follow, CShareConfinement::FoundFile},
      {parts({"in.txt"}), follow, CShareConfinement::FoundFile},
      {parts({"in.txt"}), itself, CShareConfinement::FoundOther},
      {parts({"chain.txt"}), follow, CShareConfinement::FoundFile},
      {parts({"a", "up"}), follow, CShareConfinement::FoundFolder},
      {parts({"a", "up"}), itself, CShareConfinement::FoundOther},
      {parts({"abs-a"}), follow, CShareConfinement::FoundFolder},
      {parts({"abs-a", "f.txt"}), follow, CShareConfinement::FoundFile},
      {parts({"fifo"}), follow, CShareConfinement::FoundOther},
      {parts({"out"}), itself, CShareConfinement::FoundOther},
  };
  for (const Case& c : cases) {
    String joined;
    for (const String& name : c.components) joined += "/" + name;
    // Real paths say where a path leads, not what is there.
    EXPECT_EQ(found(c.components, c.target), GetParam() ? CShareConfinement::FoundUnknown : c.kind)
        << joined.toStdUTF8() << (c.target == follow ? " followed" : " itself");
  }
}

TEST_P(ShareConfinementLinkTest, DescriptorsDoNotAccumulate) {
  const int before = countOpenDescriptors();
  {
    P<CShareConfinement> confinement = createObject<CShareConfinement>(m_root.getPath());
    for (int i = 0; i < 50; ++i) {
      refused(*confinement, parts({"a", "f.txt"}), CShareConfinement::FollowLinks);
      refused(*confinement, parts({"out", "dir"}), CShareConfinement::LinkItself);
      refused(*confinement, parts({"missing"}), CShareConfinement::FollowLinks);
    }
    // At most the root's own descriptor is kept.
    EXPECT_LE(countOpenDescriptors(), before + 1);
  }
  EXPECT_EQ(countOpenDescriptors(), before);
}

TEST_P(ShareConfinementLinkTest, AReplacedRootIsCheckedAsItIsNow) {
  ASSERT_EQ(::mkdir(native(m_root.file("share")).c_str(), 0700), 0);
  P<CShareConfinement> confinement = createObject<CShareConfinement>(m_root.file("share"));
  EXPECT_FALSE(refused(*confinement, parts({"x"}), CShareConfinement::FollowLinks));
  // Another folder takes the root's place, with a link leading out.
  ASSERT_EQ(::rename(native(m_root.file("share")).c_str(), native(m_root.file("old")).c_str()),
            0);
  ASSERT_EQ(::mkdir(native(m_root.file("share")).c_str(), 0700), 0);
  link(m_outside.getPath(), "share/x");
  EXPECT_TRUE(refused(*confinement, parts({"x"}), CShareConfinement::FollowLinks));
  EXPECT_TRUE(refused(*confinement, parts({"x", "dir"}), CShareConfinement::LinkItself));
}

INSTANTIATE_TEST_SUITE_P(Methods, ShareConfinementLinkTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? std::string("Portable") : std::string("Openat2");
                         });

TEST_F(ShareConfinementTest, DanglingLinksInsideDependOnTheMethod) {
  ASSERT_EQ(::symlink("not-yet.txt", native(m_root.file("later.txt")).c_str()), 0);
  // openat2 resolves the link and finds its target missing inside the share.
  EXPECT_FALSE(refused(*m_confinement, parts({"later.txt"}), CShareConfinement::FollowLinks));
  // The real-path method cannot tell where a dangling link leads.
  CShareConfinement::setPortableResolutionForTesting(true);
  EXPECT_TRUE(refused(*m_confinement, parts({"later.txt"}), CShareConfinement::FollowLinks));
  EXPECT_FALSE(refused(*m_confinement, parts({"later.txt"}), CShareConfinement::LinkItself));
  CShareConfinement::setPortableResolutionForTesting(false);
}
#endif

}  // namespace
}  // namespace zel
