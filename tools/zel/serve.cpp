// zel serve: shares folders with other processes through the cross-process
// file system.
#include <chrono>
#include <cstdio>
#include <thread>

#include "process.h"
#include "tool.h"
#include "zel/core/error.h"
#include "zel/init/zel_init.h"
#include "zel/fs/local_file_system.h"
#include "zel/fs/proxy/proxy_file_system_service.h"
#include "zel/path/path.h"
#include "zel/fs/uri_selector.h"

namespace zeltool {

namespace {

struct Share {
  zel::String name;
  zel::String folder;
};

int serveUsage() {
  std::fprintf(stderr,
               "usage: zel serve --share NAME=FOLDER [--share NAME=FOLDER ...] [--address NAME] "
               "[--global]\n"
               "  Each FOLDER is reached by clients as zel://NAME/... The server runs until it is\n"
               "  interrupted (Ctrl+C), or with --until-stdin-closes until its input ends.\n");
  return 2;
}

}  // namespace

int serve(const Args& args) {
  std::vector<Share> shares;
  zel::String addressName = kDefaultAddressName;
  bool global = false;
  bool untilStdinCloses = false;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--share" && i + 1 < args.size()) {
      const zel::String shareArg = args[++i];
      const int equals = shareArg.getWxString().Find('=');
      if (equals <= 0) return serveUsage();
      shares.push_back({shareArg.getWxString().Left(equals), shareArg.getWxString().Mid(equals + 1)});
    } else if (args[i] == "--address" && i + 1 < args.size()) {
      addressName = args[++i];
    } else if (args[i] == "--global") {
      global = true;
    } else if (args[i] == "--until-stdin-closes") {
      untilStdinCloses = true;
    } else {
      return serveUsage();
    }
  }
  if (shares.empty()) return serveUsage();

  zel::CZelInit init;
  zel::CXMLLog::getGlobal()->setFileEnabled(false);
  CStderrLog log;
  try {
    const zel::CIPCAddress address(kAppID, addressName, global);
    zel::P<zel::CFileSystem> local = zel::createObject<zel::CFileSystem>();
    zel::P<zel::CProxyFileSystemService> service =
        zel::createObject<zel::CProxyFileSystemService>(address);
    for (const Share& share : shares) {
      const zel::CURI root = zel::CURI::fromNativePath(zel::CNativePath(share.folder));
      if (!local->folderExists(root)) {
        std::fprintf(stderr, "zel serve: not a folder: %s\n", share.folder.toCPSafe().data());
        return 1;
      }
      const zel::CURISelector selector(kShareScheme, share.name, "/");
      service->addShare(selector, local.get(), root);
      std::printf("sharing %s as %s://%s/\n", share.folder.toCPSafe().data(), kShareScheme,
                  share.name.toCPSafe().data());
    }
    service->start();
    std::printf("serving on %s\n", describeEndpoint(address).toCPSafe().data());
    std::fflush(stdout);
    if (untilStdinCloses) {
      waitForStdinEnd();
    } else {
      for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
    }
    service->stop();
  } catch (const zel::CError& e) {
    std::fprintf(stderr, "zel serve: %s\n", zel::String(e.what()).toCPSafe().data());
    return 1;
  }
  zel::CZelInit::onApplicationExit();
  return 0;
}

}  // namespace zeltool
