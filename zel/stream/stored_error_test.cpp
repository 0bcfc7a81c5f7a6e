#include "zel/stream/stored_error.h"

#include <gtest/gtest.h>

#include <string>
#include <typeinfo>
#include <vector>

#include "zel/stream/buffer_stream.h"

namespace zel {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes store(const CError& error) {
  P<CBufferStream> buffer = createObject<CBufferStream>();
  P<CDataOutStream> out = createObject<CDataOutStream>(buffer.get());
  storeError(error, *out);
  const auto& data = *buffer->getBuffer();
  return Bytes(data.getData(), data.getData() + data.getSize());
}

P<CDataInStream> readerOf(const Bytes& bytes) {
  P<CBufferStream> buffer = createObject<CBufferStream>(bytes.data(), bytes.size(), true);
  return createObject<CDataInStream>(buffer.get());
}

CProps props(std::initializer_list<std::pair<const char*, const char*>> entries) {
  CProps result;
  for (const auto& [key, value] : entries) result.set(String(key), String(value));
  return result;
}

// Walks a stored form field by field and returns the version of each level.
std::vector<unsigned> storedVersions(const Bytes& bytes) {
  P<CDataInStream> in = readerOf(bytes);
  std::vector<unsigned> versions;
  bool more = true;
  while (more) {
    versions.push_back(in->readUInt32());
    in->readString();
    in->readString();
    in->readInt64();
    in->readString();
    more = in->readBool();
  }
  EXPECT_TRUE(in->isEndOfStream());
  return versions;
}

CError chainOf(int depth) {
  CError error("level " + String::fromInt64(depth - 1), "test", depth - 1);
  for (int i = depth - 2; i >= 0; --i) {
    error = CError("level " + String::fromInt64(i), "test", i, CProps(), &error);
  }
  return error;
}

int depthOf(const PC<CError>& error) {
  int depth = 0;
  for (PC<CError> e = error; e; e = e->getCause()) ++depth;
  return depth;
}

TEST(StoredErrorTest, ChainOfThreeStoresThreeVersionsAndLoadsAsPlainErrors) {
  const CError innermost("Access is denied.", "sys", 5, props({{"func", "CreateFileW"}}));
  const CFileSystemError middle(CFileSystemError::ProblemAccessDenied,
                                CError("Cannot open.", "errno", 13, CProps(), &innermost));
  const CIOError outer(CIOError::OpenFailed, String(), props({{"uri", "file:///C:/a.txt"}}),
                       &middle);

  const Bytes bytes = store(outer);
  EXPECT_EQ(storedVersions(bytes), (std::vector<unsigned>{1, 1, 1}));

  P<CDataInStream> in = readerOf(bytes);
  P<CError> loaded = loadError(*in);
  EXPECT_TRUE(in->isEndOfStream());
  ASSERT_EQ(depthOf(loaded), 3);

  // The classes are gone; domain, code, message and parameters remain.
  EXPECT_EQ(typeid(*loaded), typeid(CError));
  EXPECT_EQ(loaded->getMessage(), String("Error opening file or stream."));
  EXPECT_TRUE(loaded->isError("IO", CIOError::OpenFailed));
  EXPECT_TRUE(loaded->getParams() == outer.getParams());

  PC<CError> second = loaded->getCause();
  EXPECT_EQ(typeid(*second), typeid(CError));
  EXPECT_TRUE(second->isError("errno", 13));
  EXPECT_EQ(second->getParams().get(CFileSystemError::paramFileSysProblem()), String("5"));
  EXPECT_EQ(CFileSystemError::getProblem(second->getParams()),
            CFileSystemError::ProblemAccessDenied);

  PC<CError> third = second->getCause();
  EXPECT_EQ(typeid(*third), typeid(CError));
  EXPECT_EQ(third->getMessage(), String("Access is denied."));
  EXPECT_TRUE(third->isError("sys", 5));
  EXPECT_EQ(third->getParams().get("func"), String("CreateFileW"));
  EXPECT_TRUE(third->getCause().isNull());

  // What was loaded stores to the same bytes again.
  EXPECT_EQ(store(*loaded), bytes);
}

TEST(StoredErrorTest, ParameterTextTravelsWhole) {
  CError error("m\u00e9ssage", String(), -1,
               props({{"q", "say \"hi\", \\ then"}, {"", ""}, {"line", "a\nb"}}));
  error.addTrace("CFoo::bar");
  error.addTrace("CBaz::qux");
  P<CDataInStream> in = readerOf(store(error));
  P<CError> loaded = loadError(*in);
  EXPECT_TRUE(loaded->getParams() == error.getParams());
  EXPECT_EQ(loaded->getTraceListString(), String("CFoo::bar\nCBaz::qux"));
  EXPECT_EQ(loaded->getMessage(), error.getMessage());
  EXPECT_FALSE(loaded->hasErrorCode());
  EXPECT_EQ(loaded->getErrorCode(), -1);
}

TEST(StoredErrorTest, UnknownVersionIsRefused) {
  for (unsigned version : {0u, 2u, 0xFFFFFFFFu}) {
    const Bytes bytes = {
        static_cast<unsigned char>(version), static_cast<unsigned char>(version >> 8),
        static_cast<unsigned char>(version >> 16), static_cast<unsigned char>(version >> 24)};
    P<CDataInStream> in = readerOf(bytes);
    try {
      loadError(*in);
      FAIL() << "version " << version << " was accepted";
    } catch (const CError& e) {
      EXPECT_EQ(typeid(e), typeid(CError));
      EXPECT_EQ(e.getMessage(), "Unsupported stored error version: " + String::fromInt64(version));
      EXPECT_TRUE(e.getErrorCodeDomain().isEmpty());
      EXPECT_EQ(e.getErrorCode(), -1);
      EXPECT_TRUE(e.getParams().isEmpty());
      EXPECT_TRUE(e.getCause().isNull());
    }
  }
}

TEST(StoredErrorTest, AnyNonZeroHasCauseByteMeansACause) {
  Bytes bytes = store(CError("outer", "IO", 1, CProps(), nullptr));
  bytes.back() = 0x7F;
  const Bytes cause = store(CError("inner"));
  bytes.insert(bytes.end(), cause.begin(), cause.end());
  P<CDataInStream> in = readerOf(bytes);
  P<CError> loaded = loadError(*in);
  ASSERT_EQ(depthOf(loaded), 2);
  EXPECT_EQ(loaded->getCause()->getMessage(), String("inner"));
}

TEST(StoredErrorTest, MalformedInputFailsClearly) {
  // Parameter text that is not the canonical property form.
  Bytes badProps = store(CError("m", "d", 1, props({{"k", "v"}})));
  // The parameter text '"k"="v"' sits before the final byte; break its quote.
  badProps[badProps.size() - 2] = 'x';
  P<CDataInStream> in = readerOf(badProps);
  EXPECT_THROW(loadError(*in), CParseError);

  // Cut anywhere: the stream's end-of-data error.
  const Bytes whole = store(chainOf(2));
  for (size_t cut = 0; cut < whole.size(); ++cut) {
    P<CDataInStream> truncated = readerOf(Bytes(whole.begin(), whole.begin() + cut));
    try {
      loadError(*truncated);
      FAIL() << "loaded from " << cut << " bytes";
    } catch (const CIOError& e) {
      EXPECT_TRUE(e.isError("IO", CIOError::UnexpectedEnd) ||
                  e.isError("IO", CIOError::InvalidData))
          << cut << ": " << e.what();
    }
  }
}

TEST(StoredErrorTest, NestingDepthIsBounded) {
  const int limit = storedErrorMaxDepth();
  ASSERT_EQ(limit, 64);

  // As deep as allowed: loads whole.
  const Bytes atLimit = store(chainOf(limit));
  EXPECT_EQ(storedVersions(atLimit).size(), static_cast<size_t>(limit));
  P<CDataInStream> in = readerOf(atLimit);
  EXPECT_EQ(depthOf(loadError(*in)), limit);

  // One level deeper, written by hand: refused with a clear error.
  Bytes tooDeep;
  for (int i = 0; i <= limit; ++i) {
    const Bytes level = store(CError("x"));
    tooDeep.insert(tooDeep.end(), level.begin(), level.end());
    if (i < limit) tooDeep.back() = 1;
  }
  P<CBufferStream> buffer = createObject<CBufferStream>(tooDeep.data(), tooDeep.size(), true);
  buffer->setURI(CURI("file:///tmp/err.bin"));
  P<CDataInStream> deep = createObject<CDataInStream>(buffer.get());
  try {
    loadError(*deep);
    FAIL() << "a chain deeper than the limit was loaded";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::InvalidData));
    EXPECT_EQ(e.getMessage(),
              String("The stored error nests its causes deeper than the limit of 64 levels."));
    EXPECT_EQ(e.getParams().get(CIOError::paramURI()), String("file:///tmp/err.bin"));
  }

  // Storing a deeper chain keeps the outermost levels, so it loads.
  const Bytes cut = store(chainOf(limit + 6));
  P<CDataInStream> cutIn = readerOf(cut);
  P<CError> loaded = loadError(*cutIn);
  EXPECT_EQ(depthOf(loaded), limit);
  EXPECT_EQ(loaded->getMessage(), String("level 0"));
  PC<CError> last = loaded;
  while (last->getCause()) last = last->getCause();
  EXPECT_EQ(last->getMessage(), String("level 63"));
}

}  // namespace
}  // namespace zel
