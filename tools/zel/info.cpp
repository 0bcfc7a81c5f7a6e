#include <cstdio>

#include "tool.h"
#include "zel/core/error.h"
#include "zel/core/string.h"
#include "zel/core/version.h"
#include "zel/init/zel_init.h"
#include "zel/log/xml_log.h"
#include "zel/util/system_info.h"

namespace zeltool {

namespace {

// Brings the library up, exercises the pieces every caller leans on and
// takes it down again. Returns the failure text, or an empty String.
zel::String selfCheck() {
  try {
    {
      zel::CZelInit init;
      zel::CXMLLog::getGlobal()->setFileEnabled(false);
      zel::CLogCapture capture;
      zel::logInfo("zel info: self-check");
      if (!capture.contains(zel::LogLevel::Info, "self-check")) return "the log lost an entry";
      zel::String formatted = zel::CStringFormat("%s=%05d") << zel::String("x") << 42;
      if (formatted != "x=00042") return "formatting gave " + formatted;
      try {
        throw zel::CIOError(zel::CIOError::UnexpectedEnd, zel::String());
      } catch (const zel::CError& e) {
        zel::P<zel::CError> stored = e.clone();
        try {
          stored->throwClone();
        } catch (const zel::CIOError& again) {
          if (!again.isError("IO", 4)) return "a re-thrown error changed its code";
        }
      }
    }
    zel::CZelInit::onApplicationExit();
    return zel::String();
  } catch (const std::exception& e) {
    return zel::String(e.what());
  }
}

}  // namespace

int info() {
  printLine("zel", ZEL_VERSION_STRING);
  printLine("platform", zel::getPlatformDescription());
  printLine("wxWidgets", zel::getWxVersionString());
  zel::String failure = selfCheck();
  // The locale is set by the library's start-up, so the code page is read
  // after it.
  printLine("code page", zel::getCurrentCodePageName());
  printLine("self-check", failure.isEmpty() ? zel::String("ok") : "FAILED: " + failure);
  return failure.isEmpty() ? 0 : 1;
}

}  // namespace zeltool
