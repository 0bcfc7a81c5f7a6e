// A complete program outside the zel tree, as the README shows it: the
// library brought up and taken down, objects made with createObject and
// held by P, values through a stream, and errors caught as CError.
#include <zel/core/error.h>
#include <zel/core/string.h>
#include <zel/core/version.h>
#include <zel/init/zel_init.h>
#include <zel/stream/buffer_stream.h>
#include <zel/stream/data_stream.h>

#include <cstdio>

int main() {
  int result = 1;
  {
    zel::CZelInit init;
    try {
      // Library objects live on the heap, counted: createObject makes one,
      // P<T> holds a reference, the last reference deletes it.
      zel::P<zel::CBufferStream> buffer = zel::createObject<zel::CBufferStream>();
      zel::P<zel::CDataOutStream> out = zel::createObject<zel::CDataOutStream>(buffer.get());
      out->writeString(zel::CStringFormat("zel %s") << zel::String(ZEL_VERSION_STRING));
      out->writeInt32(42);

      buffer->seek(0);
      zel::P<zel::CDataInStream> in = zel::createObject<zel::CDataInStream>(buffer.get());
      const zel::String text = in->readString();
      const int number = in->readInt32();
      std::printf("consumer: read back \"%s\" and %d\n", text.toCPSafe().data(), number);

      in->readInt32();  // past the end: a CIOError
    } catch (const zel::CError& e) {
      if (e.isError("IO", zel::CIOError::UnexpectedEnd)) result = 0;
      std::printf("consumer: %s (%s)\n", result == 0 ? "ok" : "FAILED", e.what());
    }
  }
  zel::CZelInit::onApplicationExit();  // stops the library's threads, disposes its singletons
  return result;
}
