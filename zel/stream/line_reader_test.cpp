#include "zel/stream/line_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zel/core/error.h"
#include "zel/stream/buffer_stream.h"

namespace zel {
namespace {

struct Line {
  String text;
  int64 end;
  bool operator==(const Line& other) const { return text == other.text && end == other.end; }
};

std::ostream& operator<<(std::ostream& os, const Line& line) {
  return os << "'" << line.text.toStdUTF8() << "'@" << line.end;
}

P<CBufferStream> streamOf(const std::string& bytes) {
  return createObject<CBufferStream>(bytes.data(), bytes.size());
}

std::vector<Line> linesOf(const std::string& bytes, int chunkSize = 4096) {
  P<CBufferStream> stream = streamOf(bytes);
  CLineReader reader(stream.get(), chunkSize);
  std::vector<Line> lines;
  while (reader.nextLine()) lines.push_back({reader.getLine(), reader.getLineEndPosition()});
  EXPECT_FALSE(reader.nextLine());
  EXPECT_TRUE(reader.getLine().isEmpty());
  return lines;
}

// Splits with every chunk size so that each line end falls on a chunk
// boundary at least once; all must agree.
std::vector<Line> linesAtEveryChunkSize(const std::string& bytes) {
  const std::vector<Line> expected = linesOf(bytes);
  for (int chunk = 1; chunk <= static_cast<int>(bytes.size()) + 1; ++chunk) {
    EXPECT_EQ(linesOf(bytes, chunk), expected) << "chunk size " << chunk;
  }
  return expected;
}

TEST(LineReaderTest, EachKindOfLineEndEndsALine) {
  EXPECT_EQ(linesAtEveryChunkSize("a\nbb\r\nccc\rd"),
            (std::vector<Line>{{"a", 2}, {"bb", 6}, {"ccc", 10}, {"d", 11}}));
  // CR CR LF: a lone CR, then CR LF.
  EXPECT_EQ(linesAtEveryChunkSize("x\r\r\ny"),
            (std::vector<Line>{{"x", 2}, {"", 4}, {"y", 5}}));
  // LF CR: two line ends, not one.
  EXPECT_EQ(linesAtEveryChunkSize("x\n\ry"),
            (std::vector<Line>{{"x", 2}, {"", 3}, {"y", 4}}));
}

TEST(LineReaderTest, TerminatorAtTheEndStartsNoNewLine) {
  EXPECT_EQ(linesAtEveryChunkSize(""), std::vector<Line>{});
  EXPECT_EQ(linesAtEveryChunkSize("a"), (std::vector<Line>{{"a", 1}}));
  EXPECT_EQ(linesAtEveryChunkSize("a\n"), (std::vector<Line>{{"a", 2}}));
  EXPECT_EQ(linesAtEveryChunkSize("a\r"), (std::vector<Line>{{"a", 2}}));
  EXPECT_EQ(linesAtEveryChunkSize("a\r\n"), (std::vector<Line>{{"a", 3}}));
  EXPECT_EQ(linesAtEveryChunkSize("\n"), (std::vector<Line>{{"", 1}}));
  EXPECT_EQ(linesAtEveryChunkSize("\n\n"), (std::vector<Line>{{"", 1}, {"", 2}}));
  EXPECT_EQ(linesAtEveryChunkSize("\r\n\r\n"), (std::vector<Line>{{"", 2}, {"", 4}}));
  EXPECT_EQ(linesAtEveryChunkSize("a\n\nb"), (std::vector<Line>{{"a", 2}, {"", 3}, {"b", 4}}));
}

TEST(LineReaderTest, CarriageReturnAtAChunkBoundaryWaitsForTheNextChunk) {
  // With chunks of 3 the CR is the last byte of the first read.
  P<CBufferStream> stream = streamOf("ab\r\ncd");
  CLineReader reader(stream.get(), 3);
  ASSERT_TRUE(reader.nextLine());
  EXPECT_EQ(reader.getLine(), "ab");
  EXPECT_EQ(reader.getLineEndPosition(), 4);
  ASSERT_TRUE(reader.nextLine());
  EXPECT_EQ(reader.getLine(), "cd");
  EXPECT_FALSE(reader.nextLine());
}

TEST(LineReaderTest, ReportsWhetherTheStreamWasRead) {
  P<CBufferStream> stream = streamOf("a\nb\n");
  CLineReader reader(stream.get());
  EXPECT_FALSE(reader.wasStreamAccessedInLastNextLineCall());
  ASSERT_TRUE(reader.nextLine());
  EXPECT_TRUE(reader.wasStreamAccessedInLastNextLineCall());
  ASSERT_TRUE(reader.nextLine());
  EXPECT_EQ(reader.getLine(), "b");
  EXPECT_FALSE(reader.wasStreamAccessedInLastNextLineCall());  // already buffered
  EXPECT_FALSE(reader.nextLine());
  EXPECT_TRUE(reader.wasStreamAccessedInLastNextLineCall());  // found the end
  EXPECT_FALSE(reader.nextLine());
  EXPECT_FALSE(reader.wasStreamAccessedInLastNextLineCall());  // knew the end
  // Once at the end the reader leaves the stream alone, even if it grows.
  stream->write("more\n", 5);
  EXPECT_FALSE(reader.nextLine());
}

TEST(LineReaderTest, DecodesUtf8AndFallsBackToLatin1) {
  std::vector<Line> lines = linesAtEveryChunkSize("Gr\xC3\xBC\xC3\x9F" "e\ncaf\xE9\n\xC3");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].text, String(L"Gr\u00FC\u00DFe"));
  EXPECT_EQ(lines[1].text, String(L"caf\u00E9"));
  EXPECT_EQ(lines[2].text, String(L"\u00C3"));
}

TEST(LineReaderTest, SkipsAByteOrderMarkAtTheStartOnly) {
  const std::string bom = "\xEF\xBB\xBF";
  EXPECT_EQ(linesAtEveryChunkSize(bom + "a\n" + bom + "b"),
            (std::vector<Line>{{"a", 5}, {String(L"\uFEFFb"), 9}}));
  EXPECT_EQ(linesAtEveryChunkSize(bom), std::vector<Line>{});
  EXPECT_EQ(linesAtEveryChunkSize("\xEF\xBB"), (std::vector<Line>{{String(L"\u00EF\u00BB"), 2}}));

  // A reader that starts inside a stream counts from there and takes the
  // bytes as they are.
  P<CBufferStream> stream = streamOf("xx" + bom + "a\nb");
  stream->seek(2);
  CLineReader reader(stream.get());
  ASSERT_TRUE(reader.nextLine());
  EXPECT_EQ(reader.getLine(), String(L"\uFEFFa"));
  EXPECT_EQ(reader.getLineEndPosition(), 7);
  ASSERT_TRUE(reader.nextLine());
  EXPECT_EQ(reader.getLineEndPosition(), 8);
}

TEST(LineReaderTest, LongLinesAreRefused) {
  P<CBufferStream> stream = streamOf("abcd\r\nabcde\nx");
  CLineReader reader(stream.get(), 2, 4);
  ASSERT_TRUE(reader.nextLine());
  EXPECT_EQ(reader.getLine(), "abcd");
  try {
    reader.nextLine();
    ADD_FAILURE() << "long line accepted";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::InvalidData));
    EXPECT_EQ(e.getMessage(), "Line too long.");
    EXPECT_EQ(e.getParams().get("lineStartPosition"), "6");
  }
  // A last line without terminator is bounded as well.
  P<CBufferStream> tail = streamOf("abcdefgh");
  CLineReader tailReader(tail.get(), 3, 4);
  EXPECT_THROW(tailReader.nextLine(), CIOError);
}

TEST(LineReaderTest, ArgumentsAreChecked) {
  P<CBufferStream> stream = streamOf("a");
  EXPECT_THROW(CLineReader(nullptr), CInvalidArgError);
  EXPECT_THROW(CLineReader(stream.get(), 0), CInvalidArgError);
  EXPECT_THROW(CLineReader(stream.get(), 1, -1), CInvalidArgError);
}

TEST(LineReaderTest, StreamErrorsPassOn) {
  P<CBufferStream> stream = streamOf("a\nb");
  CLineReader reader(stream.get());
  stream->close();
  try {
    reader.nextLine();
    ADD_FAILURE() << "closed stream read";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::StreamClosed));
  }
}

}  // namespace
}  // namespace zel
