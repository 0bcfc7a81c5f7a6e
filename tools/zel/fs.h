// Shared by the commands of `zel fs`, a client of a running `zel serve`.
#pragma once

#include <functional>

#include "commands.h"
#include "paths.h"
#include "zel/fs/file_system.h"

namespace zeltool {

// The operand at index as a remote path; throws CUsageError.
CRemotePath remoteOperand(const CCommandContext& context, size_t index);

// Every operand as a remote path, all checked before any is used.
std::vector<CRemotePath> remoteOperands(const CCommandContext& context);

// Runs action on each path. A failure is reported and the next path taken,
// as rm and mkdir do; ExitFailure when any failed.
int forEachPath(CCommandContext& context, const std::vector<CRemotePath>& paths,
                const std::function<void(const CRemotePath& path)>& action);

// "file", "folder", "link", "other" or "unknown" (a link is named as a link).
const char* typeName(zel::IFileInfoBase& info);
// "drwxr-xr-x" from the Unix mode, or the type and a read-only mark where the
// server has no Unix modes.
std::string modeString(zel::IFileInfoBase& info);

}  // namespace zeltool
