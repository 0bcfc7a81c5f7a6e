#include "zel/path/path.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

TEST(WindowsPathTest, DriveRoots) {
  CWindowsPath p(String("C:\\dir\\f.txt"));
  EXPECT_TRUE(p.isAbsolute());
  EXPECT_EQ(String("C:\\"), p.getRoot());
  EXPECT_EQ(2, p.getComponentCount());
  EXPECT_EQ(String("C:\\dir\\f.txt"), p.toString());

  // The slash is a separator too; runs collapse and the trailing one goes.
  EXPECT_EQ(String("d:\\a\\b"), CWindowsPath(String("d:/a//b/")).toString());
  // "C:" alone is the drive's root.
  CWindowsPath root(String("C:"));
  EXPECT_TRUE(root.isRoot());
  EXPECT_EQ(String("C:\\"), root.toString());
  EXPECT_FALSE(root.hasParent());
  EXPECT_TRUE(root.getParent().isEmpty());
  // Drive-relative text is refused, and so is a drive that is not a letter.
  EXPECT_THROW(CWindowsPath(String("C:foo")), CBadPathError);
  EXPECT_THROW(CWindowsPath(String("1:\\foo")), CBadPathError);
}

TEST(WindowsPathTest, UncRoots) {
  CWindowsPath p(String("\\\\server\\share\\dir\\f"));
  EXPECT_TRUE(p.isAbsolute());
  EXPECT_EQ(String("\\\\server\\share\\"), p.getRoot());
  EXPECT_EQ(2, p.getComponentCount());
  EXPECT_EQ(String("dir"), p.getComponents()[0]);
  EXPECT_EQ(String("\\\\server\\share\\dir\\f"), p.toString());
  EXPECT_EQ(String("\\\\srv\\sh\\x"), CWindowsPath(String("//srv/sh/x")).toString());

  CWindowsPath shareRoot(String("\\\\server\\share"));
  EXPECT_TRUE(shareRoot.isRoot());
  EXPECT_EQ(String("\\\\server\\share\\"), shareRoot.toString());
  // A parent never climbs above the share.
  EXPECT_EQ(shareRoot, p.getParent().getParent());
  EXPECT_FALSE(shareRoot.hasParent());

  // A server alone, an empty server or share, and invalid names are refused.
  for (const char* text : {"\\\\server", "\\\\server\\", "\\\\\\share", "\\\\srv\\\\x",
                           "\\\\?\\C:\\x", "\\\\a*b\\share", "\\\\srv\\sh:re", "\\\\..\\share"}) {
    EXPECT_THROW(CWindowsPath(String(text)), CBadPathError) << text;
  }
}

TEST(WindowsPathTest, RootedAndRelative) {
  CWindowsPath rooted(String("\\dir\\f"));
  EXPECT_TRUE(rooted.hasRoot());
  EXPECT_FALSE(rooted.isAbsolute());
  EXPECT_EQ(String("\\dir\\f"), rooted.toString());

  CWindowsPath relative(String("a\\.\\b\\..\\c"));
  EXPECT_TRUE(relative.isRelative());
  EXPECT_FALSE(relative.hasRoot());
  // "." goes, ".." stays.
  EXPECT_EQ(String("a\\b\\..\\c"), relative.toString());
  EXPECT_TRUE(CWindowsPath(String("")).isEmpty());
}

TEST(WindowsPathTest, EachInvalidCharacterIsRefused) {
  std::wstring invalid = L"\\:*?\"<>|/";
  for (wchar_t c = 1; c < 32; ++c) invalid += c;
  invalid += wchar_t(0);
  for (wchar_t c : invalid) {
    std::wstring name = L"a";
    name += c;
    name += L"b";
    String component(name);
    EXPECT_FALSE(CWindowsPath::isValidComponent(component)) << int(c);
    EXPECT_THROW(CWindowsPath(String("C:\\x")).append(component), CBadPathError) << int(c);
    if (c != L'\\' && c != L'/' && c != L':') {
      // Parsed text with the character inside a component.
      EXPECT_THROW(CWindowsPath(String("C:\\x\\") + component), CBadPathError) << int(c);
    }
  }
  // Everything else is fine, including characters Unix forbids nothing of.
  for (const wchar_t* ok : {L"a b", L"#%&", L"x.y.z", L"\u00e9t\u00e9", L"..", L"a'b(1)"}) {
    EXPECT_TRUE(CWindowsPath::isValidComponent(String(ok)));
  }
  EXPECT_FALSE(CWindowsPath::isValidComponent(String("")));
  try {
    CWindowsPath(String("C:\\a|b"));
    FAIL();
  } catch (const CBadPathError& e) {
    EXPECT_EQ(String("Invalid path: C:\\a|b"), e.getMessage());
  }
}

TEST(WindowsPathTest, CompareIgnoresCase) {
  EXPECT_EQ(CWindowsPath(String("C:\\Dir\\FILE.txt")), CWindowsPath(String("c:/dir/file.TXT")));
  EXPECT_EQ(CWindowsPath(String("\\\\SRV\\Share")), CWindowsPath(String("\\\\srv\\share")));
  EXPECT_EQ(CWindowsPath(String(L"C:\\\u00c4RGER")), CWindowsPath(String(L"c:\\\u00e4rger")));
  EXPECT_EQ(CWindowsPath(String(L"C:\\\u0416")), CWindowsPath(String(L"c:\\\u0436")));
  EXPECT_NE(CWindowsPath(String("C:\\a")), CWindowsPath(String("C:\\b")));
  EXPECT_NE(CWindowsPath(String("C:\\a")), CWindowsPath(String("D:\\a")));
  // Prefixes sort first; ordering is by component, not by text.
  EXPECT_LT(CWindowsPath(String("C:\\a")), CWindowsPath(String("C:\\a\\b")));
  EXPECT_LT(CWindowsPath(String("C:\\a\\z")), CWindowsPath(String("C:\\a-b")));
  EXPECT_TRUE(CWindowsPath(String("C:\\A\\b\\c")).startsWith(CWindowsPath(String("c:\\a"))));
  EXPECT_FALSE(CWindowsPath(String("C:\\ab")).startsWith(CWindowsPath(String("C:\\a"))));
}

TEST(PathTest, NameExtensionParent) {
  CUnixPath p(String("/home/u/archive.tar.gz"));
  EXPECT_EQ(String("archive.tar.gz"), p.getName());
  EXPECT_EQ(String("gz"), p.getExtension());
  EXPECT_EQ(String("archive.tar"), p.getNameWithoutExtension());
  EXPECT_EQ(String("/home/u"), p.getParent().toString());
  EXPECT_EQ(String(""), CUnixPath(String("/home/.profile")).getExtension());
  EXPECT_EQ(String(".profile"), CUnixPath(String("/home/.profile")).getNameWithoutExtension());
  EXPECT_EQ(String(""), CUnixPath(String("/a/b.")).getExtension());
  EXPECT_EQ(String("b"), CUnixPath(String("/a/b.")).getNameWithoutExtension());
  EXPECT_EQ(String(".."), CUnixPath(String("a/..")).getNameWithoutExtension());
  EXPECT_EQ(String(""), CUnixPath(String("a/..")).getExtension());
  EXPECT_EQ(String("/"), CUnixPath(String("/a")).getParent().toString());
  EXPECT_EQ(String(""), CUnixPath(String("/")).getName());
  EXPECT_EQ(String("a"), CUnixPath(String("a/b")).getParent().toString());
}

TEST(PathTest, Join) {
  CWindowsPath base(String("C:\\data"));
  EXPECT_EQ(String("C:\\data\\x\\y"), base.join(String("x/y")).toString());
  EXPECT_EQ(String("C:\\data\\x"), (base / String("x")).toString());
  EXPECT_EQ(String("C:\\data\\..\\x"), base.join(String("..\\x")).toString());
  EXPECT_THROW(base.join(String("D:\\x")), CBadPathError);
  EXPECT_THROW(base.join(String("\\x")), CBadPathError);
  EXPECT_THROW(base.join(String("a\\b?")), CBadPathError);
  // append takes one component literally: no separators inside.
  EXPECT_THROW(base.append(String("a\\b")), CBadPathError);
  EXPECT_EQ(String("C:\\data"), base.append(String(".")).toString());

  CUnixPath unixBase(String("/srv"));
  EXPECT_EQ(String("/srv/a\\b:c"), unixBase.append(String("a\\b:c")).toString());
  EXPECT_THROW(unixBase.join(String("/etc")), CBadPathError);
}

TEST(UnixPathTest, RulesAndCase) {
  CUnixPath p(String("//usr///lib/./x/"));
  EXPECT_TRUE(p.isAbsolute());
  EXPECT_EQ(String("/usr/lib/x"), p.toString());
  // Only "/" and NUL are invalid.
  EXPECT_TRUE(CUnixPath::isValidComponent(String("a:b*c?\"<>|\\")));
  EXPECT_TRUE(CUnixPath::isValidComponent(String(L"tab\there")));
  EXPECT_FALSE(CUnixPath::isValidComponent(String("a/b")));
  EXPECT_FALSE(CUnixPath::isValidComponent(String(std::wstring(L"a\0b", 3))));
  EXPECT_THROW(CUnixPath(String(std::wstring(L"/a\0b", 4))), CBadPathError);
  // Case matters.
  EXPECT_NE(CUnixPath(String("/Home")), CUnixPath(String("/home")));
  EXPECT_TRUE(CUnixPath(String("rel/x")).isRelative());
  // A backslash is an ordinary character.
  EXPECT_EQ(1, CUnixPath(String("a\\b")).getComponentCount());
}

TEST(MacPathTest, SlashesColonsAndCase) {
  CMacPath p(String("/Users/U/Documents"));
  EXPECT_TRUE(p.isAbsolute());
  EXPECT_EQ(String("/Users/U/Documents"), p.toString());
  EXPECT_EQ(CMacPath(String("/users/u/documents")), p);
  EXPECT_FALSE(CMacPath::isValidComponent(String("a:b")));
  EXPECT_THROW(CMacPath(String("/a:b")), CBadPathError);
  EXPECT_TRUE(CMacPath::isValidComponent(String("a\\b")));
}

TEST(NativePathTest, MatchesPlatform) {
#if defined(_WIN32)
  EXPECT_TRUE(CNativePath(String("C:\\x")).isAbsolute());
#else
  EXPECT_TRUE(CNativePath(String("/x")).isAbsolute());
  EXPECT_TRUE(CNativePath::isValidComponent(String("a:b")));
#endif
}

}  // namespace
}  // namespace zel
