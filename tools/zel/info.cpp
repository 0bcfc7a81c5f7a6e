// zel info: facts about the library and a self-check.
#include "commands.h"
#include "zel/core/error.h"
#include "zel/core/version.h"
#include "zel/init/zel_init.h"
#include "zel/util/system_info.h"

namespace zeltool {

namespace {

// Exercises the pieces every caller leans on. Returns the failure text, or
// an empty String.
zel::String selfCheck() {
  try {
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
    return zel::String();
  } catch (const std::exception& e) {
    return zel::String(e.what());
  }
}

int runInfo(CCommandContext& context) {
  const zel::String failure = selfCheck();
  const zel::String check = failure.isEmpty() ? zel::String("ok") : "FAILED: " + failure;
  const zel::String log = logFolder("COMMAND");
  if (context.out.json) {
    CJsonWriter json;
    json.beginObject()
        .field("version", ZEL_VERSION_STRING)
        .field("platform", zel::getPlatformDescription())
        .field("wxWidgets", zel::getWxVersionString())
        .field("codePage", zel::getCurrentCodePageName())
        .field("logFolder", log)
        .field("selfCheck", check)
        .endObject();
    printOut(json.getText());
  } else {
    printLine("zel", ZEL_VERSION_STRING);
    printLine("platform", zel::getPlatformDescription());
    printLine("wxWidgets", zel::getWxVersionString());
    printLine("code page", zel::getCurrentCodePageName());
    printLine("log folder", log.isEmpty() ? zel::String("none") : log);
    printLine("self-check", check);
  }
  return failure.isEmpty() ? ExitSuccess : ExitFailure;
}

}  // namespace

CommandDef infoCommand() {
  return {"info",
          "",
          "library version, platform and a self-check",
          "The log folder shown is where the commands that keep a log write log.xml\n"
          "(COMMAND stands for serve, fs or demo).\n",
          {jsonOption()},
          0,
          0,
          &runInfo};
}

}  // namespace zeltool
