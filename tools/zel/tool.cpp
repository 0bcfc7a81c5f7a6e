#include "tool.h"

#include "zel/core/error.h"

namespace zeltool {

CStderrLog::CStderrLog() { zel::CXMLLog::getGlobal()->addListener(this); }

CStderrLog::~CStderrLog() { zel::CXMLLog::getGlobal()->removeListener(this); }

void CStderrLog::onLogEntry(const zel::CLogEntry& entry) {
  if (entry.level != zel::LogLevel::Warning && entry.level != zel::LogLevel::Error) return;
  std::fprintf(stderr, "zel: %s: %s%s%s\n", zel::logLevelName(entry.level),
               entry.text.toCPSafe().data(), entry.errorDesc.isEmpty() ? "" : ": ",
               entry.errorDesc.toCPSafe().data());
}

void printLine(const char* label, const zel::String& value) {
  std::printf("%-18s %s\n", label, value.toCPSafe().data());
}

zel::String describeEndpoint(const zel::CIPCAddress& address) {
#ifdef _WIN32
  return "\\\\.\\pipe\\" + address.getWindowsPipeName();
#else
  return address.getUnixSocketPath(false);
#endif
}

zel::CURI toClientURI(const zel::String& text) {
  zel::CURI uri(text.safeAt(0) == L'/' ? zel::String(kShareScheme) + ":/" + text : text);
  // "zel://NAME" names the share's root folder, as "zel://NAME/" does.
  if (uri.getPath().isEmpty() && uri.hasAuthority()) uri = zel::CURI(uri.toString(true) + "/");
  return uri;
}

}  // namespace zeltool
