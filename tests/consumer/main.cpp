// Uses the installed library: objects, strings, errors and start-up.
#include <cstdio>

#include <zel/core/error.h>
#include <zel/core/string.h>
#include <zel/core/version.h>
#include <zel/init/zel_init.h>

int main() {
  int result = 1;
  {
    zel::CZelInit init;
    zel::String text = zel::CStringFormat("zel %s") << zel::String(ZEL_VERSION_STRING);
    try {
      throw zel::CIOError(zel::CIOError::InvalidData, zel::String());
    } catch (const zel::CError& e) {
      if (e.isError("IO", 5) && text == zel::String("zel ") + ZEL_VERSION_STRING) result = 0;
    }
    std::printf("consumer: %s %s\n", text.toCPSafe().data(), result == 0 ? "ok" : "FAILED");
  }
  zel::CZelInit::onApplicationExit();
  return result;
}
