#include "zel/fs/uri_selector.h"

#include <gtest/gtest.h>

#include <cstring>

#include "zel/stream/buffer_stream.h"
#include "zel/stream/data_stream.h"

namespace zel {
namespace {

CURI uri(const char* text) { return CURI::parse(String(text)); }
CURISelector sel(const char* prefix) { return CURISelector(uri(prefix)); }

TEST(URISelectorTest, PathPrefixOnSegmentBoundaries) {
  CURISelector data = sel("file://srv/share/data");
  EXPECT_TRUE(data.matches(uri("file://srv/share/data")));
  EXPECT_TRUE(data.matches(uri("file://srv/share/data/")));
  EXPECT_TRUE(data.matches(uri("file://srv/share/data/x/y.txt")));
  EXPECT_FALSE(data.matches(uri("file://srv/share/database")));
  EXPECT_FALSE(data.matches(uri("file://srv/share/dat")));
  EXPECT_FALSE(data.matches(uri("file://srv/share")));
  EXPECT_FALSE(data.matches(uri("file://srv/share/data%2Fx")));
  EXPECT_FALSE(data.matches(uri("file://srv/share/Data/x")));
  // A trailing slash on the selector changes nothing.
  CURISelector slash = sel("file://srv/share/data/");
  EXPECT_EQ(data, slash);
  EXPECT_FALSE(slash.matches(uri("file://srv/share/database")));
  // So do dot segments and extra trailing slashes; the covered area stays the same.
  EXPECT_EQ(data, sel("file://srv/share/./data//"));
  EXPECT_EQ(String("/share/data"), sel("file://srv/share/./data//").getPath());
  EXPECT_TRUE(sel("file://srv/a//").matches(uri("file://srv/a/x")));
  // Empty segments inside the prefix must be there.
  EXPECT_TRUE(sel("ss:///a//b").matches(uri("ss:///a//b/c")));
  EXPECT_FALSE(sel("ss:///a//b").matches(uri("ss:///a/b/c")));
  // Dots and escapes of unreserved characters do not matter; ".." never matches.
  EXPECT_TRUE(data.matches(uri("file://srv/share/./d%61ta/./x")));
  EXPECT_FALSE(data.matches(uri("file://srv/share/data/../../etc")));
  EXPECT_FALSE(data.matches(uri("file://srv/share/data/%2e%2E/x")));
  EXPECT_FALSE(sel("file://srv").matches(uri("file://srv/a/../b")));
  // Escaped non-ASCII segments compare decoded.
  EXPECT_TRUE(
      CURISelector(CURI::parse(String(L"ss:/\u00e9t\u00e9"))).matches(uri("ss:/%C3%A9t%c3%a9/x")));
}

TEST(URISelectorTest, RemainderAfterThePrefix) {
  TArray<String> rest;
  ASSERT_TRUE(sel("file://srv/share/data").matches(uri("file://srv/share/data/a%20b/c/"), &rest));
  ASSERT_EQ(2, rest.getCount());
  EXPECT_EQ(String("a b"), rest[0]);
  EXPECT_EQ(String("c"), rest[1]);
  ASSERT_TRUE(sel("file://srv/share/data").matches(uri("file://srv/share/data"), &rest));
  EXPECT_TRUE(rest.isEmpty());
  ASSERT_TRUE(
      CURISelector(String("file"), String("*"), String("")).matches(uri("file:///x/y"), &rest));
  EXPECT_EQ(2, rest.getCount());
  rest.add(String("stale"));
  EXPECT_FALSE(sel("file:///a").matches(uri("file:///b"), &rest));
}

TEST(URISelectorTest, SchemeAndAuthority) {
  CURISelector s = sel("FILE://Srv.Example:445/share");
  EXPECT_TRUE(s.matches(uri("file://srv.example:445/share/x")));
  EXPECT_TRUE(s.matches(uri("File://SRV.EXAMPLE:445/share")));
  EXPECT_FALSE(s.matches(uri("file://srv.example/share/x")));
  EXPECT_FALSE(s.matches(uri("file://srv.example:446/share/x")));
  EXPECT_FALSE(s.matches(uri("http://srv.example:445/share/x")));
  EXPECT_FALSE(s.matches(uri("file://other:445/share/x")));
  // User info in the URI is ignored unless the selector names one.
  EXPECT_TRUE(s.matches(uri("file://bob@srv.example:445/share")));
  CURISelector bob = sel("file://bob@srv/share");
  EXPECT_TRUE(bob.matches(uri("file://bob@srv/share")));
  EXPECT_FALSE(bob.matches(uri("file://Bob@srv/share")));
  EXPECT_FALSE(bob.matches(uri("file://srv/share")));

  // The local authority matches only the empty host.
  CURISelector local = sel("file:///C:/data");
  EXPECT_TRUE(local.matches(uri("file:///C:/data/x")));
  EXPECT_TRUE(local.matches(uri("file:/C:/data/x")));
  EXPECT_FALSE(local.matches(uri("file://evil/C:/data/x")));
  EXPECT_FALSE(local.matches(uri("file://localhost/C:/data/x")));

  // IPv6 hosts compare without case.
  EXPECT_TRUE(sel("ss://[FE80::1]:8080/a").matches(uri("ss://[fe80::1]:8080/a/b")));
}

TEST(URISelectorTest, WildcardsAndEmptySelector) {
  CURISelector anyScheme(String(""), String("srv"), String("/share"));
  EXPECT_TRUE(anyScheme.matches(uri("smb://srv/share/x")));
  EXPECT_TRUE(anyScheme.matches(uri("file://srv/share")));
  EXPECT_FALSE(anyScheme.matches(uri("file://srv2/share")));

  CURISelector anyAuthority(String("file"), String("*"), String("/share"));
  EXPECT_TRUE(anyAuthority.matchesAnyAuthority());
  EXPECT_TRUE(anyAuthority.matches(uri("file://a:1/share/x")));
  EXPECT_TRUE(anyAuthority.matches(uri("file:///share")));
  EXPECT_FALSE(anyAuthority.matches(uri("file:///shared")));
  EXPECT_EQ(anyAuthority, CURISelector(uri("file://*/share")));

  CURISelector root(String("file"), String(""), String("/"));
  EXPECT_TRUE(root.matches(uri("file:///x")));
  EXPECT_TRUE(root.matches(uri("file:///")));
  EXPECT_FALSE(root.matches(uri("file:x")));  // rootless

  // Rootless prefixes select rootless paths only.
  CURISelector rootless(String("urn"), String(""), String("a:b"));
  EXPECT_TRUE(rootless.matches(uri("urn:a:b/c")));
  EXPECT_FALSE(rootless.matches(uri("urn:/a:b/c")));
  EXPECT_FALSE(rootless.matches(uri("urn:")));
  EXPECT_EQ(String(".//a"), CURISelector(String("ss"), String(""), String("././/a/")).getPath());

  CURISelector everything(String(""), String("*"), String(""));
  EXPECT_TRUE(everything.matches(uri("aa:b")));
  EXPECT_TRUE(everything.matches(uri("hh://x:1/y?q#f")));
  EXPECT_FALSE(everything.matches(CURI()));

  CURISelector empty;
  EXPECT_TRUE(empty.isEmpty());
  EXPECT_TRUE(CURISelector(CURI()).isEmpty());
  EXPECT_FALSE(empty.matches(uri("file:///")));
  EXPECT_NE(empty, everything);

  for (auto make : {+[] { CURISelector(String("1x"), String(""), String("")); },
                    +[] { CURISelector(String("ss"), String("h/p"), String("")); },
                    +[] { CURISelector(String("ss"), String("hh:x"), String("")); },
                    +[] { CURISelector(String("ss"), String(""), String("/a?b")); },
                    +[] { CURISelector(String("ss"), String(""), String("/a#b")); },
                    +[] { CURISelector(String("ss:x"), String(""), String("")); },
                    +[] { CURISelector(String("ss"), String(""), String(".")); },
                    +[] { CURISelector(String("ss"), String(""), String("./")); }}) {
    EXPECT_THROW(make(), CURIMalformedError);
  }
}

TEST(URISelectorTest, PathCaseRule) {
  CURISelector exact = sel("file:///C:/Data");
  EXPECT_TRUE(exact.isPathCaseSensitive());
  EXPECT_FALSE(exact.matches(uri("file:///c:/data/x")));
  CURISelector folded(uri("file:///C:/Data"), false);
  EXPECT_TRUE(folded.matches(uri("file:///c:/DATA/x")));
  EXPECT_TRUE(folded.matches(uri("file:///c:/D%41TA")));
  EXPECT_TRUE(CURISelector(CURI::parse(String(L"ss:/\u00c4")), false).matches(uri("ss:/%C3%A4")));
  EXPECT_FALSE(folded.matches(uri("file:///c:/DATABASE")));
  EXPECT_NE(exact, folded);
  EXPECT_EQ(String("file:///C:/Data (path without case)"), folded.toString());
  EXPECT_EQ(String("*://*/x"), CURISelector(String(""), String("*"), String("/x")).toString());
}

P<CBufferStream> storeToBuffer(const CURISelector& selector) {
  P<CBufferStream> buffer = createObject<CBufferStream>();
  P<CDataOutStream> out = createObject<CDataOutStream>(buffer.get());
  selector.store(*out);
  buffer->seek(0);
  return buffer;
}

CURISelector loadFrom(IInStream* stream) {
  P<CDataInStream> in = createObject<CDataInStream>(stream);
  return CURISelector::load(*in);
}

TEST(URISelectorTest, StoreAndLoad) {
  const CURISelector selectors[] = {
      CURISelector(),
      sel("file://bob@srv:445/share/a%20b/"),
      CURISelector(uri("file:///C:/Data"), false),
      CURISelector(String(""), String("*"), String("")),
      CURISelector(String("ss"), String(""), String(".//a")),
      sel("ss:/.//x"),
      sel("ss://[::1]/%C3%A9"),
  };
  for (const CURISelector& s : selectors) {
    P<CBufferStream> buffer = storeToBuffer(s);
    CURISelector loaded = loadFrom(buffer.get());
    EXPECT_EQ(s, loaded) << s.toString().toStdUTF8();
    EXPECT_EQ(buffer->getLength(), buffer->getPosition());
    EXPECT_EQ(storeToBuffer(loaded)->getDataAsString(), buffer->getDataAsString());
  }
}

TEST(URISelectorTest, StoredLayout) {
  P<CBufferStream> buffer = storeToBuffer(CURISelector(uri("file://h/d"), false));
  const unsigned char expected[] = {1,   0,   0, 0, 3, 0, 0,   0, 4, 0, 0, 0,   'f', 'i',
                                    'l', 'e', 1, 0, 0, 0, 'h', 2, 0, 0, 0, '/', 'd'};
  ASSERT_EQ(int64(sizeof expected), buffer->getLength());
  EXPECT_EQ(0, std::memcmp(expected, buffer->getBuffer()->getData(), sizeof expected));
}

P<CBufferStream> rawSelector(uint32 version, uint32 flags, const char* scheme,
                             const char* authority, const char* path) {
  P<CBufferStream> buffer = createObject<CBufferStream>();
  P<CDataOutStream> out = createObject<CDataOutStream>(buffer.get());
  out->writeUInt32(version);
  out->writeUInt32(flags);
  out->writeString(String(scheme));
  out->writeString(String(authority));
  out->writeString(String(path));
  buffer->seek(0);
  return buffer;
}

TEST(URISelectorTest, LoadRefusesWhatStoreNeverWrites) {
  EXPECT_NO_THROW(loadFrom(rawSelector(1, 1, "file", "h", "/d").get()));
  try {
    loadFrom(rawSelector(2, 1, "file", "h", "/d").get());
    FAIL();
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError(CIOError::errorCodeDomain(), CIOError::UnsupportedVersion));
  }
  struct Bad {
    uint32 flags;
    const char* scheme;
    const char* authority;
    const char* path;
  };
  const Bad bad[] = {
      {9, "file", "h", "/d"},    // unknown flag
      {0, "file", "", ""},       // empty, but with text
      {1, "FILE", "h", "/d"},    // not lower case
      {1, "file", "H", "/d"},    // host not normalised
      {1, "file", "h", "/d/"},   // trailing slash
      {1, "file", "h", "/./d"},  // dot segment
      {1, "file", "*", "/d"},    // "*" without its flag
      {5, "file", "h", "/d"},    // the flag without "*"
      {1, "1x", "h", "/d"},      // bad scheme
      {1, "file", "h/x", ""},    // path in the authority
      {1, "file", "h", "/a%zz"}, {1, "file", "h", "/a b"},
  };
  for (const Bad& b : bad) {
    try {
      loadFrom(rawSelector(1, b.flags, b.scheme, b.authority, b.path).get());
      ADD_FAILURE() << b.flags << " " << b.scheme << " " << b.authority << " " << b.path;
    } catch (const CIOError& e) {
      EXPECT_TRUE(e.isError(CIOError::errorCodeDomain(), CIOError::InvalidData)) << b.path;
    }
  }
  // Truncated data fails in the stream, never with a half-made selector.
  P<CBufferStream> whole = storeToBuffer(sel("file://h/d"));
  P<CBufferStream> cut =
      createObject<CBufferStream>(whole->getBuffer()->getData(), size_t(whole->getLength() - 1));
  EXPECT_THROW(loadFrom(cut.get()), CIOError);
}

}  // namespace
}  // namespace zel
