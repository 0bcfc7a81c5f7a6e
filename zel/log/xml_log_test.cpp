#include "zel/log/xml_log.h"

#include <gtest/gtest.h>

#include <thread>

#include <wx/ffile.h>
#include <wx/filefn.h>

#include "temp_folder.h"
#include "zel/core/error.h"

namespace zel {
namespace {

// Points the global log at a scratch folder for one test.
class XMLLogFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log = CXMLLog::getGlobal();
    log->setLogFolder(folder.getPath());
    log->setFileEnabled(true);
  }
  void TearDown() override {
    log->setFileEnabled(false);
    log->setLogFolder(String());
  }
  std::string content() { return test::readFileBytes(folder.file("log.xml")); }

  test::CTempFolder folder;
  P<CXMLLog> log;
};

size_t countOf(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

TEST(XMLLogTest, CaptureSeesEntriesWithLevelThreadAndError) {
  CLogCapture capture;
  CIOError error(CIOError::ReadFailed, String());
  logInfo("first");
  logError("second", &error);
  std::thread([] { logWarning("from a thread"); }).join();
  auto entries = capture.getEntries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].level, LogLevel::Info);
  EXPECT_EQ(entries[0].text, "first");
  EXPECT_TRUE(entries[0].errorDesc.isEmpty());
  EXPECT_EQ(entries[1].errorDesc, error.getDesc());
  EXPECT_NE(entries[2].threadID, entries[0].threadID);
  EXPECT_TRUE(capture.contains(LogLevel::Warning, "a thread"));
  EXPECT_FALSE(capture.contains(LogLevel::Error, "a thread"));
}

TEST(XMLLogTest, AFileIsWrittenOnlyOnceTheApplicationAsksForIt) {
  test::CTempFolder folder;
  P<CXMLLog> log = createObject<CXMLLog>();
  log->setLogFolder(folder.getPath());
  log->write(LogLevel::Error, "not for a file");
  log->dispose();
  EXPECT_FALSE(wxFileExists(folder.file("log.xml").getWxString()));

  log->setFileEnabled(true);
  log->write(LogLevel::Info, "now for the file");
  log->dispose();
  const std::string text = test::readFileBytes(folder.file("log.xml"));
  EXPECT_NE(text.find("<text>now for the file</text>"), std::string::npos);
  EXPECT_EQ(text.find("not for a file"), std::string::npos);
}

TEST(XMLLogTest, LoggingKeepsTheLastSystemError) {
  setLastSysError(5);
  logInfo("keeps the caller's error");
  EXPECT_EQ(getLastSysError(), 5);
}

TEST_F(XMLLogFileTest, EntriesAreEscapedAndTheFileStaysWellFormed) {
  CError error("bad <thing> & \"quote\"");
  logError(L"a<b & c>\"d\" \x01", &error);
  std::string text = content();
  EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<log>\n", 0), 0u);
  EXPECT_NE(text.find("level=\"error\""), std::string::npos);
  EXPECT_NE(text.find("<text>a&lt;b &amp; c&gt;&quot;d&quot; \xEF\xBF\xBD</text>"),
            std::string::npos);
  EXPECT_NE(text.find("<error>bad &lt;thing&gt; &amp; &quot;quote&quot;</error>"),
            std::string::npos);
  ASSERT_GE(text.size(), 7u);
  EXPECT_EQ(text.substr(text.size() - 7), "</log>\n");
}

// A file name that is not UTF-8 ("caf\xE9" read from a disk) shows its byte as
// text, so the file stays UTF-8; other lone surrogates become U+FFFD, and a
// character beyond the BMP is written whole (a surrogate pair on Windows).
TEST_F(XMLLogFileTest, EscapedBytesAreWrittenAsTextAndTheFileStaysUTF8) {
  String text(L"caf");
  text += static_cast<wchar_t>(0xDCE9);
  text += L" lone ";
  text += static_cast<wchar_t>(0xD800);
  text += L" ";
  text += String::fromUTF8("\xF0\x9F\x98\x80");
  CLogCapture capture;
  logWarning(text);
  ASSERT_EQ(capture.getEntries().size(), 1u);
  EXPECT_EQ(capture.getEntries()[0].text, text);
  EXPECT_NE(content().find("<text>caf\\xE9 lone \xEF\xBF\xBD \xF0\x9F\x98\x80</text>"),
            std::string::npos)
      << content();
}

TEST_F(XMLLogFileTest, ReopeningAppendsBeforeTheClosingTag) {
  logInfo("one");
  log->dispose();  // closes the file, as at exit
  logInfo(L"tw\u00f6");
  std::string text = content();
  EXPECT_EQ(countOf(text, "<log>"), 1u);
  EXPECT_EQ(countOf(text, "</log>"), 1u);
  EXPECT_EQ(countOf(text, "<entry "), 2u);
  EXPECT_LT(text.find("<text>one</text>"), text.find("<text>tw\xC3\xB6</text>"));
  EXPECT_EQ(text.substr(text.size() - 7), "</log>\n");
}

TEST_F(XMLLogFileTest, ABrokenFileIsStartedOver) {
  {
    wxFFile broken(folder.file("log.xml").getWxString(), "wb");
    broken.Write("<?xml version=\"1.0\"?>\n<log>\n<entry time=", 40);
  }
  logInfo("fresh");
  std::string text = content();
  EXPECT_EQ(countOf(text, "<entry "), 1u);
  EXPECT_NE(text.find("<text>fresh</text>"), std::string::npos);
}

}  // namespace
}  // namespace zel
