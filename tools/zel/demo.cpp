// zel demo: the cross-process file system end to end. A server process shares
// a temporary folder; this process runs a client session against it, printing
// each step and its time; then everything is cleaned up.
#include <wx/filename.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>

#include "commands.h"
#include "process.h"
#include "zel/core/error.h"
#include "zel/fs/local_file_system.h"
#include "zel/fs/proxy/proxy_file_system.h"
#include "zel/ipc/pipe.h"
#include "zel/stream/buffer_stream.h"

namespace zeltool {

namespace {

using Clock = std::chrono::steady_clock;

// Runs one step, printing its description and time; a failing step throws.
class CStepper {
 public:
  void step(const zel::String& what, const std::function<zel::String()>& action) {
    const Clock::time_point start = Clock::now();
    const zel::String detail = action();
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    std::printf("%2d. %-66s %9.2f ms\n", ++m_count,
                (detail.isEmpty() ? what : what + ": " + detail).toCPSafe().data(), ms);
    std::fflush(stdout);
  }

 private:
  int m_count = 0;
};

zel::P<zel::TBuffer<unsigned char>> patternBytes(size_t size, unsigned seed) {
  auto bytes = zel::createObject<zel::TBuffer<unsigned char>>(size);
  unsigned value = seed;
  for (size_t i = 0; i < size; ++i) {
    value = value * 1103515245u + 12345u;
    (*bytes)[i] = static_cast<unsigned char>(value >> 16);
  }
  return bytes;
}

void session(zel::IFileSystem& fs, CStepper& steps) {
  const zel::CURI folder("zel://demo/docs");
  const zel::CURI report = folder.append("report.bin");
  const zel::CURI notes = folder.append("notes.bin");
  const zel::CURI archive = folder.append("archive.bin");
  const size_t reportSize = 8 << 20;
  zel::P<zel::TBuffer<unsigned char>> data = patternBytes(reportSize, 1);

  steps.step("create folder " + folder.toString(false), [&] {
    fs.createFolder(folder, 0);
    return zel::String();
  });
  steps.step("write " + report.toString(false), [&] {
    zel::P<zel::IIOStream> out =
        fs.createStream(report, zel::IIOStream::AccessReadWrite,
                        {zel::IIOStream::FlagAlwaysCreateIfNotExist, zel::IIOStream::FlagTruncate});
    out->write(data->getData(), static_cast<int>(data->getSize()));
    out->close();
    return zel::String::fromInt64(static_cast<zel::int64>(reportSize)) + " bytes";
  });
  steps.step("list " + folder.toString(false), [&] {
    zel::P<zel::IFolderContentsIterator> it = fs.getFolderContents(folder);
    zel::String names;
    while (it->nextItem()) {
      names += (names.isEmpty() ? "" : ", ") + it->getItemName() + " (" +
               zel::String::fromInt64(it->getItemInfo()->getSize()) + " bytes)";
    }
    return names;
  });
  steps.step("read back and compare", [&] {
    zel::P<zel::IIOStream> in =
        fs.createStream(report, zel::IIOStream::AccessRead, zel::TFlags<zel::IIOStream::Flags>());
    zel::TBuffer<unsigned char> back(reportSize);
    in->read(back.getData(), static_cast<int>(reportSize));
    if (!in->isEndOfStream() || std::memcmp(back.getData(), data->getData(), reportSize) != 0) {
      throw zel::CError("The bytes read back differ from those written");
    }
    return zel::String("identical");
  });
  steps.step("background store " + notes.toString(false), [&] {
    zel::P<zel::TBuffer<unsigned char>> noteBytes = patternBytes(1 << 20, 2);
    zel::P<zel::CBufferStream> source = zel::createObject<zel::CBufferStream>(noteBytes, true);
    zel::P<zel::IBackgroundOp> op = fs.backgroundStore(
        notes, static_cast<zel::int64>(noteBytes->getSize()), source.get(), false, nullptr);
    op->waitFinished(-1);
    op->throwErrorIfFailed();
    return zel::String::fromInt64(fs.getFileInfo(notes, false)->getSize()) + " bytes stored";
  });
  steps.step("move report.bin to archive.bin", [&] {
    fs.moveFileOrFolder(report, archive, false);
    if (fs.fileExists(report) || !fs.fileExists(archive)) {
      throw zel::CError("The move did not take effect");
    }
    return zel::String();
  });
  steps.step("delete the files and the folder", [&] {
    fs.deleteFile(archive, false);
    fs.deleteFile(notes, false);
    fs.deleteEmptyFolder(folder, false);
    return fs.pathExists(folder) ? zel::String("folder still there") : zel::String();
  });
}

int runDemo(CCommandContext& context) {
  CStepper steps;
  int status = 0;
  const zel::String addressName =
      "demo-" + zel::String::fromInt64(static_cast<zel::int64>(
                    std::chrono::system_clock::now().time_since_epoch().count() % 1000000007));
  const wxString shareFolder = wxFileName::CreateTempFileName("zel-demo-");
  try {
    // CreateTempFileName made a file to reserve the name; the share is a
    // folder of that name.
    wxRemoveFile(shareFolder);
    if (!wxFileName::Mkdir(shareFolder, 0700))
      throw zel::CError("Cannot create a temporary folder");
    std::printf("share folder: %s\n", zel::String(shareFolder).toCPSafe().data());

    std::unique_ptr<CChildProcess> server;
    const zel::CIPCAddress address(kAppID, addressName, false);
    steps.step("start the server process", [&] {
      Args serveArgs{"serve",     "--share",   "demo=" + zel::String(shareFolder),
                     "--address", addressName, "--until-stdin-closes",
                     "--quiet"};
      if (context.args.has("no-log")) serveArgs.push_back("--no-log");
      server = std::make_unique<CChildProcess>(serveArgs);
      return "pid " + zel::String::fromInt64(server->getPID());
    });
    zel::P<zel::CProxyFileSystem> fs;
    steps.step("connect to " + describeEndpoint(address), [&] {
      // The server needs a moment to come up: wait for its endpoint.
      zel::P<zel::IConnection> connection = zel::connectToPipeServer(address, 10000, 10000);
      fs = zel::createObject<zel::CProxyFileSystem>(connection.get());
      return zel::String();
    });
    session(*fs, steps);
    steps.step("disconnect and stop the server", [&] {
      fs->close();
      fs = nullptr;
      server->closeInput();
      const int code = server->wait(10000);
      if (code != 0) throw zel::CError("The server ended with " + zel::String::fromInt64(code));
      return zel::String("exit code 0");
    });
  } catch (const zel::CError& e) {
    reportError(context.program, context.out, e);
    status = ExitFailure;
  }
  wxFileName::Rmdir(shareFolder, wxPATH_RMDIR_RECURSIVE);
  std::printf(status == 0 ? "demo finished\n" : "demo FAILED\n");
  return status;
}

}  // namespace

CommandDef demoCommand() {
  CommandDef command{"demo",
                     "",
                     "a server process and a client session against it, step by step",
                     "Starts `zel serve` on a temporary folder as a second process, then creates a\n"
                     "folder, writes 8 MiB, lists, reads back and compares, stores in the\n"
                     "background, moves and deletes through it, printing each step and its time.\n",
                     {},
                     0,
                     0,
                     &runDemo};
  command.showsLibraryNotices = true;
  return command;
}

}  // namespace zeltool
