#include "zel/path/uri.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <set>
#include <string>

namespace zel {
namespace {

CURI uri(const char* text) { return CURI::parse(String(text)); }

TEST(URITest, ParsesComponents) {
  CURI u = uri("http://us%20er:pw@Host.Example:8080/a/b%20c?q=1&r=/?#frag/?");
  EXPECT_EQ(String("http"), u.getScheme());
  EXPECT_TRUE(u.hasAuthority());
  EXPECT_TRUE(u.hasUserInfo());
  EXPECT_EQ(String("us%20er:pw"), u.getUserInfo());
  EXPECT_EQ(String("us er:pw"), u.getDecodedUserInfo());
  EXPECT_EQ(String("Host.Example"), u.getHost());
  EXPECT_EQ(8080, u.getPort());
  EXPECT_EQ(String("/a/b%20c"), u.getPath());
  EXPECT_EQ(String("/a/b c"), u.getDecodedPath());
  EXPECT_EQ(String("q=1&r=/?"), u.getQuery());
  EXPECT_EQ(String("frag/?"), u.getFragment());
  EXPECT_EQ(String("us%20er:pw@Host.Example:8080"), u.getAuthority());
  EXPECT_EQ(String("http://us%20er:pw@Host.Example:8080/a/b%20c?q=1&r=/?#frag/?"), u.toString());

  // Present-but-empty parts differ from absent ones.
  CURI bare = uri("ss:/p");
  EXPECT_FALSE(bare.hasAuthority());
  EXPECT_FALSE(bare.hasQuery());
  EXPECT_FALSE(bare.hasFragment());
  EXPECT_EQ(-1, bare.getPort());
  CURI empties = uri("ss://@/p?#");
  EXPECT_TRUE(empties.hasUserInfo());
  EXPECT_TRUE(empties.hasQuery());
  EXPECT_TRUE(empties.hasFragment());
  EXPECT_EQ(String("ss://@/p?#"), empties.toString());
  EXPECT_NE(bare, uri("ss:/p?"));
  // An empty port is no port.
  EXPECT_EQ(String("ss://h/x"), uri("ss://h:/x").toString());
  EXPECT_EQ(80, uri("ss://h:0080").getPort());

  EXPECT_TRUE(CURI().isEmpty());
  EXPECT_TRUE(uri("").isEmpty());
  EXPECT_EQ(String(""), CURI().toString());
  EXPECT_EQ(uri("xx:y"), CURI(String("xx:y")));
}

TEST(URITest, IPv6Authorities) {
  CURI u = uri("http://[::1]:8080/x");
  EXPECT_EQ(String("[::1]"), u.getHost());
  EXPECT_EQ(8080, u.getPort());
  EXPECT_EQ(String("/x"), u.getPath());
  EXPECT_EQ(String("http://[::1]:8080/x"), u.toString());
  EXPECT_EQ(-1, uri("http://[::1]/").getPort());
  for (const char* ok :
       {"ss://[1:2:3:4:5:6:7:8]", "ss://[::]", "ss://[1::]", "ss://[::ffff:1.2.3.4]",
        "ss://[FE80::1:2]:1", "ss://[1:2:3:4:5:6:1.2.3.4]", "ss://[v7.a:b!]"}) {
    EXPECT_NO_THROW(uri(ok)) << ok;
  }
  for (const char* bad :
       {"ss://[::1", "ss://[::1]x", "ss://[1:2:3]", "ss://[:::1]", "ss://[1::2::3]",
        "ss://[12345::]", "ss://[1.2.3.4]", "ss://[::1.2.3.256]", "ss://[::01.2.3.4]",
        "ss://[1:2:3:4:5:6:7:8:9]", "ss://[1:2:3:4:5:6:7::8]", "ss://[g::]", "ss://[v.x]",
        "ss://[::1%25eth0]", "ss://[]"}) {
    EXPECT_THROW(uri(bad), CURIMalformedError) << bad;
  }
  EXPECT_EQ(String("ss://[fe80::a]"), uri("SS://[FE80::A]").toNormalized().toString());
}

TEST(URITest, MalformedTextReportsIt) {
  for (const char* bad :
       {"no scheme", "a/b:c", "://x", "1ab:x", "a b:x", "C:\\dir", "c:/dir", "ss:%zz", "ss:/a%4",
        "ss:/%", "ss://h:8x/", "ss://h:70000/", "ss://h:1:2/", "ss:?%g0", "ss:#%"}) {
    EXPECT_THROW(uri(bad), CURIMalformedError) << bad;
  }
  try {
    uri("ss:/a%zz");
    FAIL();
  } catch (const CURIMalformedError& e) {
    EXPECT_EQ(String("ss:/a%zz"), e.getParams().get(String("uri")));
    EXPECT_FALSE(e.hasErrorCode());
    EXPECT_EQ(-1, e.getErrorCode());
    EXPECT_FALSE(e.getMessage().isEmpty());
    P<CError> copy = e.clone();
    EXPECT_THROW(copy->throwClone(), CURIMalformedError);
  }
}

TEST(URITest, EscapesCharactersOutsideTheirComponent) {
  // Spaces, brackets, "%" in a segment and non-ASCII text become UTF-8 escapes.
  CURI u = CURI::parse(String(L"ss://h o/a b[1]/\u00e9\u20ac?x y#z#w"));
  EXPECT_EQ(String("h%20o"), u.getHost());
  EXPECT_EQ(String("/a%20b%5B1%5D/%C3%A9%E2%82%AC"), u.getPath());
  EXPECT_EQ(String("x%20y"), u.getQuery());
  EXPECT_EQ(String("z%23w"), u.getFragment());
  EXPECT_EQ(String(L"/a b[1]/\u00e9\u20ac"), u.getDecodedPath());
  EXPECT_EQ(String(L"ss://h o/a b[1]/\u00e9\u20ac?x y#z#w"), u.toString(false));
  EXPECT_EQ(u, CURI::parse(u.toString(true)));

  // Characters beyond the BMP escape as four bytes.
  CURI emoji = CURI::parse(String(L"ss:/\U0001F600"));
  EXPECT_EQ(String("/%F0%9F%98%80"), emoji.getPath());
  EXPECT_EQ(String(L"/\U0001F600"), emoji.getDecodedPath());

  EXPECT_EQ(String("a%20b%2Fc%25d%3F%23:@!$&'()*+,;=-._~"),
            CURI::escapeSegment(String("a b/c%d?#:@!$&'()*+,;=-._~")));
  EXPECT_EQ(String(L"a\u00e9b"), CURI::unescape(String("a%c3%A9b")));
}

// A String from units, for texts holding escaped bytes (U+DC80..U+DCFF).
String units(std::initializer_list<unsigned> codes) {
  std::wstring text;
  for (unsigned c : codes) text += static_cast<wchar_t>(c);
  return String(text);
}

// Escapes are bytes: those outside well-formed UTF-8 decode to escaped bytes,
// which escape as the same bytes again, so a name that is not UTF-8 keeps its
// bytes through a URI.
TEST(URITest, BytesThatAreNotUTF8SurviveUnescapingAndEscaping) {
  EXPECT_EQ(units({0xDCFF, 0xDCC3, '('}), CURI::unescape(String("%FF%C3%28")));
  EXPECT_EQ(units({'c', 'a', 'f', 0xDCE9}), CURI::unescape(String("caf%e9")));
  EXPECT_EQ(units({0xDCED, 0xDCA0, 0xDC80}), CURI::unescape(String("%ED%A0%80")));
  EXPECT_EQ(String("caf%E9.txt"), CURI::escapeSegment(units({'c', 'a', 'f', 0xDCE9, '.', 't', 'x', 't'})));
  EXPECT_EQ(String("%FF%C3("), CURI::escapeSegment(units({0xDCFF, 0xDCC3, '('})));

  // Parsed text holding escaped bytes: the raw bytes, not their UTF-8.
  CURI u = CURI::parse(String("file:///d/") + units({'n', 0xDCE9, 0x00E9, '?', 0xDCFF, '#', 0xDC80}));
  EXPECT_EQ(String("/d/n%E9%C3%A9"), u.getPath());
  EXPECT_EQ(String("%FF"), u.getQuery());
  EXPECT_EQ(String("%80"), u.getFragment());
  EXPECT_EQ(units({'n', 0xDCE9, 0x00E9}), u.getName());
  EXPECT_EQ(u, CURI::parse(u.toString(true)));
  EXPECT_EQ(u, CURI::parse(u.toString(false)));

  // Other lone surrogates have no bytes: they escape as U+FFFD.
  EXPECT_EQ(String("%EF%BF%BDx"), CURI::escapeSegment(units({0xD800, 'x'})));
  EXPECT_EQ(String("/%EF%BF%BD"), CURI::parse(String("ss:/") + units({0xDC7F})).getPath());

  // Every ill-formed pattern, as a segment: its escapes are its bytes, and it
  // comes back from the URI and its texts as it went in.
  const char* const patterns[] = {
      "\x80", "\xBF\x80", "\xC3", "\xC3(", "\xE2\x82", "\xF0\x9F\x98", "\xC0\xAF",
      "\xE0\x80\xAF", "\xF0\x80\x80\xAF", "\xED\xA0\x80", "\xED\xB3\xA9", "\xF4\x90\x80\x80",
      "\xF5\xF8\xFB\xFE", "\xFF", "caf\xC3\xA9\xE9\xE2\x82\xAC\xFF", "end\xE2\x82"};
  const CURI folder("file:///folder");
  for (const char* pattern : patterns) {
    const std::string bytes(pattern);
    SCOPED_TRACE(bytes.size());
    const String segment = String::fromUTF8Lossless(bytes.data(), bytes.size());
    std::string escaped;
    for (unsigned char b : bytes) {
      static const char kHex[] = "0123456789ABCDEF";
      if (b < 0x80) {  // letters and "(" stay as they are in a segment
        escaped += static_cast<char>(b);
      } else {
        escaped += '%';
        escaped += kHex[b >> 4];
        escaped += kHex[b & 0xF];
      }
    }
    const CURI child = folder.append(segment);
    EXPECT_EQ(child.getPath(), String("/folder/") + String(escaped));
    EXPECT_EQ(child.getName(), segment);
    EXPECT_EQ(CURI::unescape(CURI::escapeSegment(segment)), segment);
    EXPECT_EQ(CURI::parse(child.toString(true)), child);
    EXPECT_EQ(CURI::parse(child.toString(false)), child);
    EXPECT_EQ(child.toNormalized(), child);
    EXPECT_EQ(CURI::parse(String("file:///folder/") + String(String(escaped).getWxString().Lower())).toNormalized(),
              child);
  }
}

TEST(URITest, EmptySegmentsAndDots) {
  CURI u = uri("file:///a//b/");
  TArray<String> segments = u.getSegments();
  ASSERT_EQ(4, segments.getCount());
  EXPECT_EQ(String("a"), segments[0]);
  EXPECT_EQ(String(""), segments[1]);
  EXPECT_EQ(String("b"), segments[2]);
  EXPECT_EQ(String(""), segments[3]);
  EXPECT_EQ(String("file:///a//b/"), u.toNormalized().toString());
  EXPECT_EQ(1, uri("ss:/").getSegments().getCount());
  EXPECT_EQ(0, uri("ss://h").getSegments().getCount());

  // "." segments go, ".." segments stay visible, escaped dots included.
  EXPECT_EQ(String("ss://h/a/../b/"), uri("ss://h/./a/./../b/.").toNormalized().toString());
  EXPECT_EQ(String("ss://h/share/../../etc"),
            uri("ss://h/share/%2E%2E/%2e%2E/etc").toNormalized().toString());
  EXPECT_EQ(String("ss://h/.../..a"), uri("ss://h/.../..a").toNormalized().toString());
  // Without an authority a path must not start with "//"; a rootless path
  // stays rootless.
  CURI odd = uri("ss:/.//a").toNormalized();
  EXPECT_EQ(String("ss:/.//a"), odd.toString());
  EXPECT_EQ(odd, CURI::parse(odd.toString()));
  EXPECT_EQ(String("ss:.//a"), uri("ss:././/a").toNormalized().toString());
  EXPECT_EQ(String("ss:a:b"), uri("ss:./a:b").toNormalized().toString());
}

TEST(URITest, Normalization) {
  CURI u = uri("HTTP://Us%65r@Exa%4dple.COM:80/%7e%41%2f%3a%c3%a9?%7E%2f#%5b%41");
  CURI n = u.toNormalized();
  EXPECT_EQ(String("http://User@example.com:80/~A%2F%3A%C3%A9?~%2F#%5BA"), n.toString());
  EXPECT_EQ(n, n.toNormalized());
  EXPECT_NE(u, n);  // comparison is exact
  EXPECT_EQ(n, uri("http://User@EXAMPLE.com:80/~A%2f%3A%C3%A9?~%2F#%5BA").toNormalized());
  // The user name keeps its case.
  EXPECT_NE(uri("ss://A@h/").toNormalized(), uri("ss://a@h/").toNormalized());
}

TEST(URITest, NormalTextsStayAndNearMissesStillNormalise) {
  for (const char* text : {"file:///srv/a/b.txt", "file:///a//b/", "ss://u@h:1/a/..b?q#f", "ss:/",
                           "ss:a/b", "ss://h", "ss://h/.../..a", "ss://h/a/../b"}) {
    const CURI u = uri(text);
    EXPECT_EQ(u, u.toNormalized()) << text;
    EXPECT_EQ(String(text), u.toNormalized().toString()) << text;
  }
  // One character away from a normal text: each must still be rewritten.
  EXPECT_EQ(String("ss://h/a/"), uri("ss://h/a/.").toNormalized().toString());
  EXPECT_EQ(String("ss://h/a/b"), uri("ss://h/./a/b").toNormalized().toString());
  EXPECT_EQ(String("ss:a"), uri("ss:./a").toNormalized().toString());
  EXPECT_EQ(String("ss:"), uri("ss:.").toNormalized().toString());
  EXPECT_EQ(String("ss://h/a"), uri("sS://h/a").toNormalized().toString());
  EXPECT_EQ(String("ss://hh/a"), uri("ss://hH/a").toNormalized().toString());
  EXPECT_EQ(String("ss://h/~"), uri("ss://h/%7e").toNormalized().toString());
  EXPECT_EQ(String("ss://h/a?~#~"), uri("ss://h/a?%7E#%7e").toNormalized().toString());
  EXPECT_EQ(String("ss://%C3%A9@h/a"), uri("ss://%c3%a9@h/a").toNormalized().toString());
}

TEST(URITest, IsNormalizedTellsWhenNormalisingChangesNothing) {
  for (const char* text : {"file:///srv/a/b.txt", "file:///a//b/", "ss://u@h:1/a/..b?q#f", "ss:/",
                           "ss:a/b", "ss://h", "ss://h/.../..a", "ss://h/a/../b"}) {
    EXPECT_TRUE(uri(text).isNormalized()) << text;
  }
  for (const char* text : {"ss://h/a/.", "ss://h/./a/b", "ss:./a", "ss:.", "sS://h/a", "ss://hH/a",
                           "ss://h/%7e", "ss://h/a?%7E#%7e", "ss://%c3%a9@h/a"}) {
    EXPECT_FALSE(uri(text).isNormalized()) << text;
  }
  // Normal escapes, and a "." that normalising keeps, answer false as well.
  EXPECT_FALSE(uri("ss://h/%C3%A9").isNormalized());
  EXPECT_FALSE(uri("ss:/.//a").isNormalized());
  EXPECT_TRUE(CURI().isNormalized());
}

TEST(URITest, PlainTextsAreTheirOwnEscapedForm) {
  const CURI file = uri("file:///srv/x-y_z~!$&'()*+,;=:@.txt/");
  EXPECT_EQ(String("file"), file.getScheme());
  EXPECT_TRUE(file.hasAuthority());
  EXPECT_EQ(String(""), file.getHost());
  EXPECT_EQ(String("/srv/x-y_z~!$&'()*+,;=:@.txt/"), file.getPath());
  EXPECT_EQ(String("file:///srv/x-y_z~!$&'()*+,;=:@.txt/"), file.toString());
  const CURI host = uri("Smb://Host.Example/share");
  EXPECT_EQ(String("Smb"), host.getScheme());
  EXPECT_EQ(String("Host.Example"), host.getHost());
  EXPECT_EQ(String("/share"), host.getPath());
  const CURI urn = uri("urn:isbn:0451450523");
  EXPECT_FALSE(urn.hasAuthority());
  EXPECT_EQ(String("isbn:0451450523"), urn.getPath());
  EXPECT_TRUE(uri("file://").hasAuthority());
  EXPECT_EQ(String(""), uri("file://").getPath());
  EXPECT_FALSE(uri("file:").hasAuthority());
  // One character more and the text is taken apart the general way.
  EXPECT_EQ(String("/a%20b"), uri("file:///a b").getPath());
  EXPECT_EQ(8, uri("ss://h:8/x").getPort());
  EXPECT_EQ(String("u"), uri("ss://u@h/x").getUserInfo());
  EXPECT_EQ(String("q"), uri("ss://h/x?q").getQuery());
  EXPECT_THROW(uri("ss://h:p/x"), CURIMalformedError);
  EXPECT_THROW(uri("s:/x"), CURIMalformedError);
  EXPECT_THROW(uri("1s:/x"), CURIMalformedError);
}

TEST(URITest, ComparisonAndOrdering) {
  EXPECT_EQ(uri("ss://h/a"), uri("ss://h/a"));
  EXPECT_NE(uri("ss://h/a"), uri("ss://H/a"));
  EXPECT_NE(uri("ss://h/a"), uri("ss://h:1/a"));
  EXPECT_NE(uri("ss://h/a"), uri("ss://h/a#"));
  EXPECT_NE(uri("ss:/a"), uri("ss:///a"));
  std::set<CURI> sorted{uri("bb:x"), uri("aa:y"), uri("aa:x"), uri("aa:x")};
  ASSERT_EQ(3u, sorted.size());
  EXPECT_EQ(uri("aa:x"), *sorted.begin());
  EXPECT_FALSE(uri("aa:x") < uri("aa:x"));
  EXPECT_TRUE(uri("aa:x") < uri("aa:y") || uri("aa:y") < uri("aa:x"));
}

TEST(URITest, NameParentAppend) {
  CURI u = uri("file://srv/share/dir/f%20x.txt?q#f");
  EXPECT_EQ(String("f x.txt"), u.getName());
  EXPECT_EQ(String("file://srv/share/dir"), u.getParent().toString());
  EXPECT_EQ(String("dir"), uri("ss:/a/dir/").getName());
  EXPECT_EQ(String("ss:/a"), uri("ss:/a/dir/").getParent().toString());
  EXPECT_EQ(String("ss:/"), uri("ss:/a").getParent().toString());
  EXPECT_EQ(String("file:///"), uri("file:///C:").getParent().toString());
  EXPECT_EQ(String("ss:/a"), uri("ss:/a//").getParent().toString());
  EXPECT_EQ(String(""), uri("ss:/a//").getName());
  EXPECT_EQ(String("ss:a"), uri("ss:a/b").getParent().toString());
  for (const char* top : {"ss:/", "ss://h", "ss://h/", "ss:a", "ss:"}) {
    EXPECT_FALSE(uri(top).hasParent()) << top;
    EXPECT_TRUE(uri(top).getParent().isEmpty()) << top;
  }
  EXPECT_FALSE(CURI().hasParent());

  CURI child = uri("ss://h/a?q").append(String(L"x y/z%#\u00e9"));
  EXPECT_EQ(String("ss://h/a/x%20y%2Fz%25%23%C3%A9"), child.toString());
  EXPECT_EQ(String(L"x y/z%#\u00e9"), child.getName());
  EXPECT_EQ(uri("ss://h/a"), child.getParent());
  EXPECT_EQ(String("ss://h/a/b"), uri("ss://h/a/").append(String("b")).toString());
  EXPECT_EQ(String("ss://h/b"), uri("ss://h").append(String("b")).toString());
  EXPECT_EQ(String("ss://h/a/"), uri("ss://h/a").append(String("")).toString());
  EXPECT_EQ(String("ss://h/a/%252E%252E."), uri("ss://h/a").append(String("%2E%2E.")).toString());
  EXPECT_THROW(uri("ss://h/a").append(String("..")), CInvalidArgError);
  EXPECT_THROW(uri("ss://h/a").append(String(".")), CInvalidArgError);
  EXPECT_THROW(CURI().append(String("a")), CInvalidArgError);

  // Several segments at once: the same as appending them one by one.
  const TArray<String> several{String(""), String("x y"), String(""), String("%/"), String("b")};
  for (const char* base : {"ss://h/a?q#f", "ss://h/a/", "ss://h", "ss:a", "ss:/"}) {
    CURI oneByOne = uri(base);
    for (const String& segment : several) oneByOne = oneByOne.append(segment);
    EXPECT_EQ(oneByOne, uri(base).append(several)) << base;
  }
  EXPECT_EQ(String("ss://h/a/x%20y/%25%2F/b"), uri("ss://h/a").append(several).toString());
  // Nothing to append leaves the URI as it is, query and fragment included.
  EXPECT_EQ(uri("ss://h/a?q#f"), uri("ss://h/a?q#f").append(TArray<String>()));
  EXPECT_THROW(uri("ss://h/a").append(TArray<String>{String("b"), String("..")}), CInvalidArgError);
  EXPECT_THROW(CURI().append(TArray<String>()), CInvalidArgError);
}

TEST(URIFileTest, WindowsPaths) {
  struct Case {
    const wchar_t* path;
    const char* uri;
  };
  const Case cases[] = {
      {L"C:\\dir\\f.txt", "file:///C:/dir/f.txt"},
      {L"C:\\", "file:///C:/"},
      {L"d:\\My Docs\\100%#1\\\u00fcn\u00ef.txt",
       "file:///d:/My%20Docs/100%25%231/%C3%BCn%C3%AF.txt"},
      {L"\\\\server\\share\\dir", "file://server/share/dir"},
      {L"\\\\server\\share\\", "file://server/share"},
      {L"\\\\srv x\\sh%re\\a b", "file://srv%20x/sh%25re/a%20b"},
      {L"C:\\a;b=c\\[x]@y", "file:///C:/a;b=c/%5Bx%5D@y"},
  };
  for (const Case& c : cases) {
    CWindowsPath path{String(c.path)};
    CURI u = CURI::fromWindowsPath(path);
    EXPECT_EQ(String(c.uri), u.toString()) << c.uri;
    EXPECT_EQ(path.toString(), u.toWindowsPath().toString()) << c.uri;
  }
  EXPECT_EQ(String("C:\\x"), uri("file://localhost/C:/x").toWindowsPath().toString());
  EXPECT_EQ(String("C:\\x"), uri("FILE:/C:/x/").toWindowsPath().toString());
  EXPECT_EQ(String("C:\\"), uri("file:///C:").toWindowsPath().toString());
  EXPECT_EQ(String("C:\\a\\..\\b"), uri("file:///C:/a/../b").toWindowsPath().toString());

  EXPECT_THROW(CURI::fromWindowsPath(CWindowsPath(String("rel\\x"))), CBadPathError);
  EXPECT_THROW(CURI::fromWindowsPath(CWindowsPath(String("\\x"))), CBadPathError);
  // Decoded segments that are no valid names.
  for (const char* bad :
       {"file:///C:/a%2Fb", "file:///C:/a%5Cb", "file:///C:/a%3Ab", "file:///C:/a//b",
        "file:///C:/a%01", "file://s%3Arv/share/x", "file://srv/sh%2Are"}) {
    EXPECT_THROW(uri(bad).toWindowsPath(), CBadPathError) << bad;
  }
  for (const char* bad : {"http://h/C:/x", "file:///home/x", "file:///", "file://server/",
                          "file://server", "file:///C:/x?q", "file:///C:/x#f", "file://u@/C:/x",
                          "file://:1/C:/x", "file:C:/x", "file:///CC:/x", "file:///1:/x"}) {
    EXPECT_THROW(uri(bad).toWindowsPath(), CURIIncompatibleError) << bad;
  }
  try {
    uri("http://h/x").toWindowsPath();
    FAIL();
  } catch (const CURIIncompatibleError& e) {
    EXPECT_EQ(String("http://h/x"), e.getParams().get(String("uri")));
    EXPECT_EQ(-1, e.getErrorCode());
    EXPECT_THROW(e.clone()->throwClone(), CURIIncompatibleError);
  }
}

TEST(URIFileTest, UnixPaths) {
  struct Case {
    const wchar_t* path;
    const char* uri;
  };
  const Case cases[] = {
      {L"/home/u/f", "file:///home/u/f"},
      {L"/", "file:///"},
      {L"/a b/100%/#x?\\y:z", "file:///a%20b/100%25/%23x%3F%5Cy:z"},
      {L"/\u00e9t\u00e9/\U0001F600", "file:///%C3%A9t%C3%A9/%F0%9F%98%80"},
      // Escaped bytes: a Linux name that is not UTF-8 ("caf\xE9", "\xC0\xAF").
      {L"/caf\xDCE9/\xDCC0\xDCAF", "file:///caf%E9/%C0%AF"},
  };
  for (const Case& c : cases) {
    CUnixPath path{String(c.path)};
    CURI u = CURI::fromUnixPath(path);
    EXPECT_EQ(String(c.uri), u.toString()) << c.uri;
    EXPECT_EQ(path.toString(), u.toUnixPath().toString()) << c.uri;
  }
  EXPECT_EQ(String("/x"), uri("file://LocalHost/x").toUnixPath().toString());
  EXPECT_THROW(CURI::fromUnixPath(CUnixPath(String("rel"))), CBadPathError);
  for (const char* bad : {"file:///a%2Fb", "file:///a%00b", "file:///a//b"}) {
    EXPECT_THROW(uri(bad).toUnixPath(), CBadPathError) << bad;
  }
  for (const char* bad : {"file://server/share", "ftp:///x", "file:///x?", "file:", "file:x"}) {
    EXPECT_THROW(uri(bad).toUnixPath(), CURIIncompatibleError) << bad;
  }
  EXPECT_THROW(CURI().toUnixPath(), CURIIncompatibleError);
}

TEST(URIFileTest, NativePaths) {
#if defined(_WIN32)
  CNativePath path(String("C:\\Program Files\\x"));
  EXPECT_EQ(String("file:///C:/Program%20Files/x"), CURI::fromNativePath(path).toString());
#else
  CNativePath path(String("/opt/Program Files/x"));
  EXPECT_EQ(String("file:///opt/Program%20Files/x"), CURI::fromNativePath(path).toString());
#endif
  EXPECT_EQ(path, CURI::fromNativePath(path).toNativePath());
}

}  // namespace
}  // namespace zel
