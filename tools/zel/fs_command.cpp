// zel fs: a client of a running `zel serve`.
#include <cinttypes>
#include <cstdio>

#include "tool.h"
#include "zel/core/error.h"
#include "zel/init/zel_init.h"
#include "zel/fs/local_file_system.h"
#include "zel/fs/proxy/proxy_file_system.h"
#include "zel/ipc/pipe.h"
#include "zel/path/path.h"

namespace zeltool {

namespace {

int fsUsage() {
  std::fprintf(stderr,
               "usage: zel fs [--address NAME] [--global] COMMAND ARGS\n"
               "  ls URI             list a folder\n"
               "  stat URI           information on a file or folder\n"
               "  get URI LOCALFILE  copy a file from the server\n"
               "  put LOCALFILE URI  copy a file to the server\n"
               "  mkdir URI          create a folder (and missing parents)\n"
               "  rm URI             delete a file or an empty folder\n"
               "  mv FROM TO         move or rename\n"
               "  df URI             free bytes where URI lies\n"
               "URIs are zel://SHARE/path, or /SHARE/path for short.\n");
  return 2;
}

const char* typeName(zel::IFileInfoBase::Type type) {
  switch (type) {
    case zel::IFileInfoBase::TypeFile: return "file";
    case zel::IFileInfoBase::TypeFolder: return "folder";
    case zel::IFileInfoBase::TypeOther: return "other";
    default: return "unknown";
  }
}

// Copies everything from in to out in 1 MiB pieces; returns the byte count.
long long copyStream(zel::IInStream& in, zel::IOutStream& out) {
  zel::TBuffer<unsigned char> buffer(1 << 20);
  long long total = 0;
  for (;;) {
    const int got = in.readLax(buffer.getData(), static_cast<int>(buffer.getSize()));
    if (got <= 0) return total;
    out.write(buffer.getData(), got);
    total += got;
  }
}

zel::CURI localURI(const zel::String& path) {
  return zel::CURI::fromNativePath(zel::CNativePath(path));
}

int run(zel::IFileSystem& fs, const zel::String& command, const Args& rest) {
  auto need = [&](size_t count) { return rest.size() == count; };
  if (command == "ls" && need(1)) {
    zel::P<zel::IFolderContentsIterator> it = fs.getFolderContents(toClientURI(rest[0]));
    while (it->nextItem()) {
      zel::P<zel::IFileInfoBase> info = it->getItemInfo();
      std::printf("%-7s %14" PRId64 "  %s  %s\n", typeName(info->getType()),
                  static_cast<int64_t>(info->getSize()),
                  info->getDataModifiedTime().toISOString().toCPSafe().data(),
                  it->getItemName().toCPSafe().data());
    }
  } else if (command == "stat" && need(1)) {
    zel::P<zel::IFileInfoBase> info = fs.getFileInfo(toClientURI(rest[0]), false);
    printLine("type", typeName(info->getType()));
    printLine("size", zel::String::fromInt64(info->getSize()));
    printLine("modified", info->getDataModifiedTime().toISOString());
    printLine("created", info->getCreatedTime().toISOString());
    printLine("read-only", info->isReadOnly() ? "yes" : "no");
    if (info->hasUnixInfo()) {
      char mode[32];
      std::snprintf(mode, sizeof(mode), "%llo", static_cast<unsigned long long>(info->getUnixMode()));
      printLine("mode", mode);
      printLine("owner", info->getUnixUserName());
    }
    if (info->getSymLinkType() != zel::IFileInfoBase::SymLinkNone) {
      printLine("link to", info->getSymLinkTargetPath());
    }
  } else if (command == "get" && need(2)) {
    zel::P<zel::IIOStream> in =
        fs.createStream(toClientURI(rest[0]), zel::IIOStream::AccessRead, zel::TFlags<zel::IIOStream::Flags>());
    zel::P<zel::CFileSystem> local = zel::createObject<zel::CFileSystem>();
    zel::P<zel::IIOStream> out = local->createStream(
        localURI(rest[1]), zel::IIOStream::AccessReadWrite,
        zel::TFlags<zel::IIOStream::Flags>(zel::IIOStream::FlagAlwaysCreateIfNotExist) |
            zel::IIOStream::FlagTruncate);
    std::printf("%lld bytes\n", copyStream(*in, *out));
    out->close();
  } else if (command == "put" && need(2)) {
    zel::P<zel::CFileSystem> local = zel::createObject<zel::CFileSystem>();
    zel::P<zel::IIOStream> in = local->createStream(localURI(rest[0]), zel::IIOStream::AccessRead,
                                                    zel::TFlags<zel::IIOStream::Flags>());
    zel::P<zel::IIOStream> out = fs.createStream(
        toClientURI(rest[1]), zel::IIOStream::AccessReadWrite,
        zel::TFlags<zel::IIOStream::Flags>(zel::IIOStream::FlagAlwaysCreateIfNotExist) |
            zel::IIOStream::FlagTruncate);
    std::printf("%lld bytes\n", copyStream(*in, *out));
    out->close();
  } else if (command == "mkdir" && need(1)) {
    fs.ensureFolderExists(toClientURI(rest[0]), zel::IFileSystem::CreateFolderParents);
  } else if (command == "rm" && need(1)) {
    const zel::CURI uri = toClientURI(rest[0]);
    if (fs.folderExists(uri)) {
      fs.deleteEmptyFolder(uri, false);
    } else {
      fs.deleteFile(uri, false);
    }
  } else if (command == "mv" && need(2)) {
    fs.moveFileOrFolder(toClientURI(rest[0]), toClientURI(rest[1]), false);
  } else if (command == "df" && need(1)) {
    std::printf("%" PRId64 " bytes free\n",
                static_cast<int64_t>(fs.getFreeSpaceInFolder(toClientURI(rest[0]))));
  } else {
    return fsUsage();
  }
  return 0;
}

}  // namespace

int fsClient(const Args& args) {
  zel::String addressName = kDefaultAddressName;
  bool global = false;
  size_t i = 0;
  for (; i < args.size(); ++i) {
    if (args[i] == "--address" && i + 1 < args.size()) {
      addressName = args[++i];
    } else if (args[i] == "--global") {
      global = true;
    } else {
      break;
    }
  }
  if (i >= args.size() || args[i] == "help") return fsUsage();
  const zel::String command = args[i];
  const Args rest(args.begin() + static_cast<long>(i) + 1, args.end());

  zel::CZelInit init;
  zel::CXMLLog::getGlobal()->setFileEnabled(false);
  CStderrLog log;
  int status = 0;
  try {
    const zel::CIPCAddress address(kAppID, addressName, global);
    zel::P<zel::IConnection> connection = zel::connectToPipeServerIfAvailable(address, 2000);
    if (!connection) {
      std::fprintf(stderr, "zel fs: no server at %s\n", describeEndpoint(address).toCPSafe().data());
      return 1;
    }
    zel::P<zel::CProxyFileSystem> fs = zel::createObject<zel::CProxyFileSystem>(connection.get());
    status = run(*fs, command, rest);
  } catch (const zel::CError& e) {
    std::fprintf(stderr, "zel fs: %s\n", zel::String(e.what()).toCPSafe().data());
    status = 1;
  }
  zel::CZelInit::onApplicationExit();
  return status;
}

}  // namespace zeltool
