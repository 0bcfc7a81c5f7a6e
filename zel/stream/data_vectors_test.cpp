// Checks the shared vectors in tests/vectors/data_encoding.txt both ways:
// every value encodes to its bytes and every byte sequence decodes to its
// value. The file's header describes its format.
#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include "zel/stream/buffer_stream.h"
#include "zel/stream/data_stream.h"
#include "zel/stream/stored_error.h"

namespace zel {
namespace {

using Bytes = std::vector<unsigned char>;

struct Token {
  std::string text;  // bytes of a quoted token after escapes
  bool quoted = false;
};

struct Line {
  int number = 0;
  std::vector<Token> tokens;
};

std::string hex(const Bytes& bytes) {
  std::string out;
  for (unsigned char b : bytes) {
    static const char digits[] = "0123456789ABCDEF";
    if (!out.empty()) out += ' ';
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

void appendUtf8(std::string& out, unsigned long cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// The wide text of valid UTF-8, decoded here rather than by String so that a
// fault in the library's own conversion cannot hide itself. Embedded zeros
// are kept.
String textOf(const std::string& utf8) {
  std::wstring wide;
  for (size_t i = 0; i < utf8.size();) {
    const auto b = static_cast<unsigned char>(utf8[i]);
    const int extra = b < 0x80 ? 0 : b < 0xE0 ? 1 : b < 0xF0 ? 2 : 3;
    unsigned long cp = extra == 0 ? b : b & (0x3F >> extra);
    for (int k = 1; k <= extra; ++k)
      cp = (cp << 6) | (static_cast<unsigned char>(utf8[i + k]) & 0x3F);
    i += static_cast<size_t>(extra) + 1;
    if (sizeof(wchar_t) == 2 && cp >= 0x10000) {
      wide += static_cast<wchar_t>(0xD800 + ((cp - 0x10000) >> 10));
      wide += static_cast<wchar_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
    } else {
      wide += static_cast<wchar_t>(cp);
    }
  }
  return String(wide);
}

std::vector<Line> parseLines(const std::string& content) {
  std::vector<Line> lines;
  std::istringstream in(content);
  std::string raw;
  int number = 0;
  while (std::getline(in, raw)) {
    ++number;
    Line line;
    line.number = number;
    size_t i = 0;
    while (i < raw.size()) {
      const char c = raw[i];
      if (c == ' ' || c == '\t' || c == '\r') {
        ++i;
      } else if (c == '#') {
        break;
      } else if (c == '"') {
        Token token;
        token.quoted = true;
        for (++i; i < raw.size() && raw[i] != '"'; ++i) {
          if (raw[i] != '\\') {
            token.text += raw[i];
            continue;
          }
          const char e = raw[++i];
          if (e == 'x') {
            token.text += static_cast<char>(std::stoi(raw.substr(i + 1, 2), nullptr, 16));
            i += 2;
          } else if (e == 'u') {
            const size_t close = raw.find('}', i);
            appendUtf8(token.text, std::stoul(raw.substr(i + 2, close - i - 2), nullptr, 16));
            i = close;
          } else {
            token.text += e;
          }
        }
        ++i;  // the closing quote
        line.tokens.push_back(token);
      } else {
        Token token;
        while (i < raw.size() && raw[i] != ' ' && raw[i] != '\t' && raw[i] != '\r') {
          token.text += raw[i++];
        }
        line.tokens.push_back(token);
      }
    }
    if (!line.tokens.empty()) lines.push_back(line);
  }
  return lines;
}

Bytes hexBytes(const std::vector<Token>& tokens, size_t from) {
  Bytes bytes;
  for (size_t i = from; i < tokens.size(); ++i) {
    bytes.push_back(static_cast<unsigned char>(std::stoul(tokens[i].text, nullptr, 16)));
  }
  return bytes;
}

std::string readVectorsFile() {
  const std::string path = std::string(ZEL_TEST_VECTORS_DIR) + "/data_encoding.txt";
  std::ifstream file(path, std::ios::binary);
#ifdef _WIN32
  // Under Wine a Unix path is reached through drive Z: when the current drive
  // is another one.
  if (!file) file.open("Z:" + path, std::ios::binary);
#endif
  EXPECT_TRUE(file.good()) << "cannot open " << path;
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

uint64_t bitsOf(double value) {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

double parseDouble(std::string text) {
  bool negative = false;
  if (!text.empty() && text[0] == '-') {
    negative = true;
    text.erase(0, 1);
  }
  double value = 0;
  std::from_chars_result result;
  if (text.rfind("0x", 0) == 0) {
    result =
        std::from_chars(text.data() + 2, text.data() + text.size(), value, std::chars_format::hex);
  } else {
    result = std::from_chars(text.data(), text.data() + text.size(), value);
  }
  EXPECT_EQ(result.ec, std::errc()) << text;
  EXPECT_EQ(result.ptr, text.data() + text.size()) << text;
  return negative ? -value : value;
}

template <class T>
T parseInteger(const std::string& text) {
  T value{};
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  EXPECT_EQ(result.ec, std::errc()) << text;
  EXPECT_EQ(result.ptr, text.data() + text.size()) << text;
  return value;
}

// Encodes with fill (given a fresh data stream) and returns the bytes.
template <class Fill>
Bytes encode(Fill&& fill) {
  P<CBufferStream> buffer = createObject<CBufferStream>();
  P<CDataOutStream> out = createObject<CDataOutStream>(buffer.get());
  fill(*out);
  const auto& data = *buffer->getBuffer();
  return Bytes(data.getData(), data.getData() + data.getSize());
}

P<CDataInStream> decoder(const Bytes& bytes) {
  P<CBufferStream> buffer = createObject<CBufferStream>(bytes.data(), bytes.size(), true);
  return createObject<CDataInStream>(buffer.get());
}

// One value entry of every kind: encode through the write operation and the
// matching operator<<, decode through both read forms and operator>>.
class VectorChecker {
 public:
  void checkValue(const Line& line) {
    const std::string& direction = line.tokens[0].text;
    const std::string& type = line.tokens[1].text;
    const Token& value = line.tokens[2];
    const Bytes bytes = hexBytes(line.tokens, 3);
    const bool doEncode = direction == "both" || direction == "enc";
    const bool doDecode = direction == "both" || direction == "dec";
    ASSERT_TRUE(doEncode || doDecode) << "line " << line.number << ": bad direction";
    SCOPED_TRACE("line " + std::to_string(line.number) + ": " + type + " " + value.text);
    ++m_counts[type + " " + direction];

    if (type == "int8") {
      checkInt<char>(parseInteger<int>(value.text), bytes, doEncode, doDecode,
                     &CDataOutStream::writeInt8, &CDataInStream::readInt8,
                     &CDataInStream::readInt8);
    } else if (type == "uint8") {
      checkInt<unsigned char>(parseInteger<unsigned>(value.text), bytes, doEncode, doDecode,
                              &CDataOutStream::writeUInt8, &CDataInStream::readUInt8,
                              &CDataInStream::readUInt8);
    } else if (type == "int16") {
      checkInt<short>(parseInteger<int>(value.text), bytes, doEncode, doDecode,
                      &CDataOutStream::writeInt16, &CDataInStream::readInt16,
                      &CDataInStream::readInt16);
    } else if (type == "uint16") {
      checkInt<unsigned short>(parseInteger<unsigned>(value.text), bytes, doEncode, doDecode,
                               &CDataOutStream::writeUInt16, &CDataInStream::readUInt16,
                               &CDataInStream::readUInt16);
    } else if (type == "int32") {
      checkInt<int>(parseInteger<int>(value.text), bytes, doEncode, doDecode,
                    &CDataOutStream::writeInt32, &CDataInStream::readInt32,
                    &CDataInStream::readInt32);
    } else if (type == "uint32") {
      checkInt<unsigned int>(parseInteger<unsigned>(value.text), bytes, doEncode, doDecode,
                             &CDataOutStream::writeUInt32, &CDataInStream::readUInt32,
                             &CDataInStream::readUInt32);
    } else if (type == "int64") {
      checkInt<int64>(parseInteger<int64>(value.text), bytes, doEncode, doDecode,
                      &CDataOutStream::writeInt64, &CDataInStream::readInt64,
                      &CDataInStream::readInt64);
    } else if (type == "uint64") {
      checkInt<uint64>(parseInteger<uint64>(value.text), bytes, doEncode, doDecode,
                       &CDataOutStream::writeUInt64, &CDataInStream::readUInt64,
                       &CDataInStream::readUInt64);
    } else if (type == "bool") {
      ASSERT_TRUE(value.text == "true" || value.text == "false");
      checkInt<bool>(value.text == "true", bytes, doEncode, doDecode, &CDataOutStream::writeBool,
                     &CDataInStream::readBool, &CDataInStream::readBool);
    } else if (type == "double") {
      checkDouble(parseDouble(value.text), bytes, doEncode, doDecode);
    } else if (type == "string") {
      checkString(textOf(value.text), bytes, doEncode, doDecode);
    } else if (type == "utf8") {
      checkUtf8(value.text, bytes, doEncode, doDecode);
    } else if (type == "latin1") {
      ASSERT_FALSE(doDecode) << "latin1 entries encode only";
      EXPECT_EQ(hex(encode([&](CDataOutStream& out) { out << value.text.c_str(); })), hex(bytes));
    } else if (type == "wide") {
      ASSERT_FALSE(doDecode) << "wide entries encode only";
      const String text = textOf(value.text);
      EXPECT_EQ(hex(encode([&](CDataOutStream& out) { out << text.toWChar(); })), hex(bytes));
    } else {
      ADD_FAILURE() << "unknown type " << type;
    }
  }

  void checkError(const std::vector<Line>& block) {
    struct Level {
      String message, domain;
      int64 code;
      CProps params;
    };
    std::vector<Level> levels;
    bool fails = false;
    Level failure;
    Bytes bytes;
    for (const Line& line : block) {
      const std::string& key = line.tokens[0].text;
      if (key == "level" || key == "fails") {
        ASSERT_EQ(line.tokens.size(), 4u) << "line " << line.number;
        Level level{textOf(line.tokens[1].text), textOf(line.tokens[2].text),
                    parseInteger<int64>(line.tokens[3].text), CProps()};
        if (key == "fails") {
          fails = true;
          failure = level;
        } else {
          levels.push_back(level);
        }
      } else if (key == "param") {
        ASSERT_FALSE(levels.empty()) << "line " << line.number;
        levels.back().params.set(textOf(line.tokens[1].text), textOf(line.tokens[2].text));
      } else if (key == "bytes") {
        const Bytes more = hexBytes(line.tokens, 1);
        bytes.insert(bytes.end(), more.begin(), more.end());
      } else {
        FAIL() << "line " << line.number << ": unexpected " << key;
      }
    }
    SCOPED_TRACE("error block at line " + std::to_string(block.front().number));
    P<CDataInStream> in = decoder(bytes);

    if (fails) {
      ++m_counts["error fails"];
      ASSERT_TRUE(levels.empty());
      try {
        loadError(*in);
        FAIL() << "loading succeeded";
      } catch (const CError& e) {
        EXPECT_EQ(typeid(e), typeid(CError));
        EXPECT_EQ(e.getMessage(), failure.message) << e.getMessage().toStdUTF8();
        EXPECT_EQ(e.getErrorCodeDomain(), failure.domain);
        EXPECT_EQ(e.getErrorCode(), failure.code);
        EXPECT_TRUE(e.getParams().isEmpty());
        EXPECT_TRUE(e.getCause().isNull());
      }
      return;
    }

    ++m_counts["error both"];
    ASSERT_FALSE(levels.empty());
    P<CError> chain;
    for (auto it = levels.rbegin(); it != levels.rend(); ++it) {
      chain = createObject<CError>(it->message, it->domain, it->code, it->params, chain.get());
    }
    EXPECT_EQ(hex(encode([&](CDataOutStream& out) { storeError(*chain, out); })), hex(bytes));

    P<CError> loaded = loadError(*in);
    EXPECT_TRUE(in->isEndOfStream());
    PC<CError> current = loaded;
    for (const Level& level : levels) {
      ASSERT_FALSE(current.isNull()) << "the loaded chain is too short";
      EXPECT_EQ(typeid(*current), typeid(CError));
      EXPECT_EQ(current->getMessage(), level.message) << current->getMessage().toStdUTF8();
      EXPECT_EQ(current->getErrorCodeDomain(), level.domain);
      EXPECT_EQ(current->getErrorCode(), level.code);
      EXPECT_TRUE(current->getParams() == level.params)
          << current->getParams().toString().toStdUTF8();
      current = current->getCause();
    }
    EXPECT_TRUE(current.isNull()) << "the loaded chain is too long";
  }

  const std::map<std::string, int>& counts() const { return m_counts; }

 private:
  template <class T, class V>
  void checkInt(V parsed, const Bytes& bytes, bool doEncode, bool doDecode,
                CDataOutStream& (CDataOutStream::*write)(T), T (CDataInStream::*read)(),
                CDataInStream& (CDataInStream::*readInto)(T&)) {
    const T value = static_cast<T>(parsed);
    ASSERT_EQ(static_cast<V>(value), parsed) << "value out of range of its type";
    if (doEncode) {
      EXPECT_EQ(hex(encode([&](CDataOutStream& out) { (out.*write)(value); })), hex(bytes));
      EXPECT_EQ(hex(encode([&](CDataOutStream& out) { out << value; })), hex(bytes));
    }
    if (doDecode) {
      P<CDataInStream> in = decoder(bytes);
      EXPECT_EQ(((*in).*read)(), value);
      EXPECT_TRUE(in->isEndOfStream());
      T viaReference{};
      (decoder(bytes).get()->*readInto)(viaReference);
      EXPECT_EQ(viaReference, value);
      T viaOperator{};
      *decoder(bytes) >> viaOperator;
      EXPECT_EQ(viaOperator, value);
    }
  }

  void checkDouble(double value, const Bytes& bytes, bool doEncode, bool doDecode) {
    if (doEncode) {
      EXPECT_EQ(hex(encode([&](CDataOutStream& out) { out.writeDouble(value); })), hex(bytes));
      EXPECT_EQ(hex(encode([&](CDataOutStream& out) { out << value; })), hex(bytes));
    }
    if (doDecode) {
      ASSERT_FALSE(std::isnan(value)) << "NaN never comes out of decoding";
      P<CDataInStream> in = decoder(bytes);
      EXPECT_EQ(bitsOf(in->readDouble()), bitsOf(value));
      EXPECT_TRUE(in->isEndOfStream());
      double viaReference = 0;
      decoder(bytes)->readDouble(viaReference);
      EXPECT_EQ(bitsOf(viaReference), bitsOf(value));
    }
  }

  void checkString(const String& value, const Bytes& bytes, bool doEncode, bool doDecode) {
    if (doEncode) {
      EXPECT_EQ(hex(encode([&](CDataOutStream& out) { out.writeString(value); })), hex(bytes));
      EXPECT_EQ(hex(encode([&](CDataOutStream& out) { out << value; })), hex(bytes));
    }
    if (doDecode) {
      P<CDataInStream> in = decoder(bytes);
      const String decoded = in->readString();
      EXPECT_EQ(decoded, value) << decoded.toStdUTF8();
      EXPECT_TRUE(in->isEndOfStream());
      String viaOperator;
      *decoder(bytes) >> viaOperator;
      EXPECT_EQ(viaOperator, value);
    }
  }

  void checkUtf8(const std::string& value, const Bytes& bytes, bool doEncode, bool doDecode) {
    if (doEncode) {
      EXPECT_EQ(hex(encode([&](CDataOutStream& out) { out.writeUTF8(value.c_str()); })),
                hex(bytes));
    }
    if (doDecode) {
      P<CDataInStream> in = decoder(bytes);
      char* decoded = in->readUTF8();
      EXPECT_EQ(std::string(decoded), value);
      EXPECT_EQ(decoded[value.size()], 0);
      std::free(decoded);
      EXPECT_TRUE(in->isEndOfStream());
    }
  }

  std::map<std::string, int> m_counts;
};

TEST(DataVectorsTest, SharedVectorsHoldBothWays) {
  const std::vector<Line> lines = parseLines(readVectorsFile());
  ASSERT_FALSE(lines.empty());
  VectorChecker checker;
  std::vector<Line> block;
  bool inBlock = false;
  for (const Line& line : lines) {
    const std::string& first = line.tokens[0].text;
    if (inBlock) {
      if (first == "end") {
        checker.checkError(block);
        block.clear();
        inBlock = false;
      } else {
        block.push_back(line);
      }
    } else if (first == "error") {
      inBlock = true;
    } else {
      ASSERT_GE(line.tokens.size(), 4u) << "line " << line.number;
      checker.checkValue(line);
    }
  }
  EXPECT_FALSE(inBlock) << "an error block is not closed";

  // Every kind of entry is there, so that a truncated file cannot pass.
  const auto& counts = checker.counts();
  for (const char* kind :
       {"int8 both",  "uint8 both",  "int16 both", "uint16 both", "int32 both",  "uint32 both",
        "int64 both", "uint64 both", "bool both",  "bool dec",    "double both", "double enc",
        "double dec", "string both", "string enc", "string dec",  "utf8 both",   "latin1 enc",
        "wide enc",   "error both",  "error fails"}) {
    EXPECT_TRUE(counts.count(kind)) << "no entry of kind " << kind;
  }
  EXPECT_GE(counts.at("error both"), 3);
  EXPECT_GE(counts.at("double both"), 15);
}

}  // namespace
}  // namespace zel
