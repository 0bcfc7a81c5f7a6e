#include "zel/stream/stream.h"

#include <gtest/gtest.h>

#include "zel/core/error.h"
#include "zel/stream/buffer_stream.h"

namespace zel {
namespace {

TEST(StreamTest, FileCorruptedErrorNamesTheStream) {
  P<CBufferStream> stream = createObject<CBufferStream>();
  stream->setURI(CURI("file:///data/my%20file.bin"));
  CFileCorruptedError named(stream.get());
  EXPECT_EQ(named.getMessage(), "The file 'file:///data/my file.bin' is corrupted.");
  EXPECT_TRUE(named.isError("IO", CIOError::InvalidData));

  EXPECT_EQ(CFileCorruptedError(createObject<CBufferStream>().get()).getMessage(),
            "The file is corrupted.");
  EXPECT_EQ(CFileCorruptedError(static_cast<IInStream*>(nullptr)).getMessage(),
            "The file is corrupted.");
  // A stream that cannot tell its address any more still gives an error.
  stream->close();
  EXPECT_EQ(CFileCorruptedError(stream.get()).getMessage(), "The file is corrupted.");
}

}  // namespace
}  // namespace zel
