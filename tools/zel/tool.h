// Shared pieces of the zel command-line tool's commands.
#pragma once

#include <cstdio>
#include <vector>

#include "zel/core/string.h"
#include "zel/ipc/ipc_address.h"
#include "zel/log/xml_log.h"
#include "zel/path/uri.h"

namespace zeltool {

using Args = std::vector<zel::String>;

// The application ID of the tool's IPC addresses.
inline const char* kAppID = "zel";
// The address `zel serve` and `zel fs` use unless told otherwise.
inline const char* kDefaultAddressName = "fs";
// Client URIs of a share named NAME are zel://NAME/...
inline const char* kShareScheme = "zel";

int info();
int serve(const Args& args);
int fsClient(const Args& args);
int demo(const Args& args);

// Writes warnings and errors of the library's log to standard error while it
// lives (the tool keeps no log file).
class CStderrLog : public zel::ILogListener {
 public:
  CStderrLog();
  ~CStderrLog() override;
  void onLogEntry(const zel::CLogEntry& entry) override;
};

void printLine(const char* label, const zel::String& value);
// Where the server of address listens: the pipe or socket path.
zel::String describeEndpoint(const zel::CIPCAddress& address);
// "zel://NAME/..." as given, or a path "/NAME/rest" turned into that form.
zel::CURI toClientURI(const zel::String& text);

}  // namespace zeltool
