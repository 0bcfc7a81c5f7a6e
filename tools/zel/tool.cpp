#include "tool.h"

#include <wx/filename.h>

#include "platform.h"
#include "zel/core/error.h"

namespace zeltool {

zel::String logFolder(const char* command) {
  const zel::String state = getUserStateFolder();
  if (state.isEmpty()) return zel::String();
  const zel::String separator(wxString(wxFileName::GetPathSeparator()));
  return state + separator + "zel" + separator + command;
}

CToolLog::CToolLog(const std::string& program, const COutput& out, bool showNotices, bool keepFile,
                   const char* command)
    : m_program(program), m_out(out), m_showNotices(showNotices) {
  const zel::P<zel::CXMLLog>& log = zel::CXMLLog::getGlobal();
  log->addListener(this);
  if (!keepFile) return;
  const zel::String folder = logFolder(command);
  if (folder.isEmpty() || !wxFileName::Mkdir(folder.getWxString(), 0700, wxPATH_MKDIR_FULL)) {
    if (out.verbose)
      std::fprintf(stderr, "%s: keeping no log file: no folder for it\n", program.c_str());
    return;
  }
  log->setLogFolder(folder);
  log->setFileEnabled(true);
}

CToolLog::~CToolLog() { zel::CXMLLog::getGlobal()->removeListener(this); }

void CToolLog::onLogEntry(const zel::CLogEntry& entry) {
  if (m_out.quiet) return;
  const bool notable = entry.level == zel::LogLevel::Warning || entry.level == zel::LogLevel::Error;
  const bool show = m_out.verbose ? entry.level != zel::LogLevel::Debug : notable && m_showNotices;
  if (!show) return;
  std::string line =
      m_program + ": " + zel::logLevelName(entry.level) + ": " + toDisplay(entry.text);
  if (!entry.errorDesc.isEmpty()) line += ": " + toDisplay(entry.errorDesc);
  std::fprintf(stderr, "%s\n", line.c_str());
}

zel::CIPCAddress makeAddress(const CParsedArgs& args, bool global) {
  const zel::String name =
      args.has("address") ? args.getValue("address") : zel::String(kDefaultAddressName);
  try {
    const zel::CIPCAddress address(kAppID, name, global);
    // Linux checks the name's parts when the socket path is made.
    describeEndpoint(address);
    return address;
  } catch (const zel::CError& e) {
    throw CUsageError("--address '" + name + "': " + e.getMessage());
  }
}

void printLine(const char* label, const zel::String& value) {
  std::printf("%-18s %s\n", label, toDisplay(value).c_str());
}

zel::String describeEndpoint(const zel::CIPCAddress& address) {
#ifdef _WIN32
  return "\\\\.\\pipe\\" + address.getWindowsPipeName();
#else
  return address.getUnixSocketPath(false);
#endif
}

}  // namespace zeltool
