// zel serve: shares folders with other processes through the cross-process
// file system, until Ctrl+C, SIGTERM or (for a parent process) the end of
// standard input.
#include <algorithm>

#include "commands.h"
#include "paths.h"
#include "share_index.h"
#include "zel/core/error.h"
#include "zel/fs/local_file_system.h"
#include "zel/fs/proxy/proxy_file_system_service.h"
#include "zel/fs/uri_selector.h"
#include "zel/path/path.h"

namespace zeltool {

namespace {

const char kRootOption[] = "all-users-may-act-as-root";

struct Share {
  zel::String name;
  zel::String folder;  // absolute
  zel::CURI root;
};

// Share names become the host of zel://NAME/ URIs, which compare without
// case: letters, digits, ".", "-" and "_" only.
bool isValidShareName(const std::wstring& name) {
  if (name.empty()) return false;
  return std::all_of(name.begin(), name.end(), [](wchar_t c) {
    return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9') ||
           c == L'.' || c == L'-' || c == L'_';
  });
}

std::wstring lowerASCII(std::wstring text) {
  for (wchar_t& c : text) {
    if (c >= L'A' && c <= L'Z') c = static_cast<wchar_t>(c - L'A' + L'a');
  }
  return text;
}

std::vector<Share> parseShares(const Args& values) {
  std::vector<Share> shares;
  for (const zel::String& value : values) {
    const std::wstring text = value.toStdWString();
    const size_t equals = text.find(L'=');
    if (equals == std::wstring::npos || equals + 1 == text.size()) {
      throw CUsageError("--share '" + value + "': expected NAME=FOLDER");
    }
    const std::wstring name = text.substr(0, equals);
    if (!isValidShareName(name)) {
      throw CUsageError("--share '" + value +
                        "': a share name holds only letters, digits, '.', '-' and '_'");
    }
    for (const Share& other : shares) {
      if (lowerASCII(other.name.toStdWString()) == lowerASCII(name)) {
        throw CUsageError("share '" + zel::String(name) + "' is given twice");
      }
    }
    const zel::String folder = absoluteLocalPath(zel::String(text.substr(equals + 1)));
    shares.push_back({zel::String(name), folder, zel::CURI()});
  }
  if (shares.empty()) throw CUsageError("nothing to serve: give at least one --share NAME=FOLDER");
  return shares;
}

void announce(const CCommandContext& context, const std::vector<Share>& shares,
              const zel::CIPCAddress& address) {
  const zel::String endpoint = describeEndpoint(address);
  if (context.out.json) {
    CJsonWriter json;
    json.beginObject()
        .field("address", address.getName())
        .field("global", address.getGlobal())
        .field("endpoint", endpoint)
        .key("shares")
        .beginArray();
    for (const Share& share : shares) {
      json.beginObject()
          .field("name", share.name)
          .field("folder", share.folder)
          .field("uri", zel::String(kShareScheme) + "://" + share.name + "/")
          .endObject();
    }
    json.endArray().endObject();
    printOut(json.getText());
    return;
  }
  if (context.out.quiet) return;
  std::string text;
  for (const Share& share : shares) {
    text += "sharing " + toDisplay(share.folder) + " as " + kShareScheme + "://" +
            toDisplay(share.name) + "/ (/" + toDisplay(share.name) + " for short)\n";
  }
  text += "serving at " + toDisplay(endpoint) + "; stop with Ctrl+C\n";
  printOut(text);
}

// Until interrupted or, with untilInputEnds, until standard input ends.
void waitForStop(bool untilInputEnds) {
  if (!untilInputEnds) {
    waitForInterrupt(-1);
    return;
  }
  CLocalReader input("-");
  char buffer[256];
  while (input.read(buffer, sizeof(buffer)) > 0) {
  }
}

int runServe(CCommandContext& context) {
  const CParsedArgs& args = context.args;
  std::vector<Share> shares = parseShares(args.getValues("share"));
  const bool global = args.has("global");
  if (global && isPrivilegedUser() && !args.has(kRootOption)) {
    throw CUsageError(
        "--global as root would let every local user act as root on the shared folders; "
        "add --" +
        zel::String(kRootOption) + " if that is what you want");
  }
  const zel::CIPCAddress address = makeAddress(args, global);

  zel::P<zel::CFileSystem> local = zel::createObject<zel::CFileSystem>();
  for (Share& share : shares) {
    share.root = onSubject(
        share.folder, [&] { return zel::CURI::fromNativePath(zel::CNativePath(share.folder)); });
    const bool isFolder = onSubject(share.folder, [&] { return local->folderExists(share.root); });
    if (!isFolder) throw CFailure(share.folder, "not a folder");
  }
  if (global) {
    // Said every time, not only to root: the shares are open to every user.
    std::fprintf(stderr,
                 "%s: warning: --global: every user of this machine can read, change and delete "
                 "the shared files, with the rights of %s\n",
                 context.program.c_str(), toDisplay(getUserName()).c_str());
  }

  zel::P<zel::CProxyFileSystemService> service =
      zel::createObject<zel::CProxyFileSystemService>(address);
  zel::P<CShareIndexFileSystem> index = zel::createObject<CShareIndexFileSystem>(local.get());
  for (const Share& share : shares) {
    service->addShare(zel::CURISelector(kShareScheme, share.name, "/"), local.get(), share.root);
    index->addShare(share.name, share.root);
  }
  // The empty authority: no share name can take it.
  service->addShare(zel::CURISelector(kShareScheme, "", "/"), index.get());

  CInterruptScope stoppable;
  onSubject(describeEndpoint(address), [&] { service->start(); });
  announce(context, shares, address);
  waitForStop(args.has("until-stdin-closes"));
  const int sessions = service->getConnectionCount();
  printNotice(context.out,
              context.program + ": stopping" +
                  (isInterrupted() ? std::string(" (") + getInterruptName() + ")" : "") +
                  "; closing " + std::to_string(sessions) + " client session" +
                  (sessions == 1 ? "" : "s"));
  service->stop();
  return ExitSuccess;
}

}  // namespace

CommandDef serveCommand() {
  CommandDef command{
      "serve",
      "--share NAME=FOLDER [--share NAME=FOLDER ...]",
      "share folders with other processes until stopped",
      "Each FOLDER (relative to the current folder, or absolute) is reached by clients\n"
      "as zel://NAME/... or /NAME/... for short. The server runs until Ctrl+C or\n"
      "SIGTERM, then closes its client sessions and removes its socket.\n"
      "With --global every user of the machine can reach the shares and act on them\n"
      "with this server's rights; as root that needs --all-users-may-act-as-root.\n",
      {{"share", 's', "NAME=FOLDER", "share FOLDER as NAME (repeatable)"},
       {"address", 'a', "NAME", "listen at this address name (default: fs)"},
       {"global", 0, nullptr, "an address every user of the machine can reach"},
       {kRootOption, 0, nullptr, "with --global as root: yes, every user may act as root"},
       {"until-stdin-closes", 0, nullptr, "also stop when standard input ends"},
       jsonOption()},
      0,
      0,
      &runServe};
  command.showsLibraryNotices = true;
  return command;
}

}  // namespace zeltool
