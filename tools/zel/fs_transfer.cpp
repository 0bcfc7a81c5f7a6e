// zel fs get and zel fs put: copies between the server and local files, as
// cp and sftp make them. The target appears only when complete: both sides
// write under a temporary name beside the target and rename it into place,
// and remove it after a failure or an interruption.
#include <chrono>

#include "fs.h"
#include "zel/core/buffer.h"

namespace zeltool {

namespace {

constexpr int kChunk = 1 << 20;

using Clock = std::chrono::steady_clock;

void reportDone(const CCommandContext& context, zel::int64 bytes, Clock::time_point start,
                const zel::String& target) {
  if (!context.out.verbose) return;
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  char text[64];
  std::snprintf(text, sizeof(text), "%.2f s", seconds);
  printNotice(context.out, context.program + ": " + toDisplay(target) + ": " +
                               formatSize(bytes, context.out.rawBytes) + " in " + text);
}

int runGet(CCommandContext& context) {
  const CRemotePath source = remoteOperand(context, 0);
  const Args& operands = context.args.getOperands();
  const zel::String localWritten = operands.size() > 1 ? operands[1] : zel::String(".");
  zel::String localPath = absoluteLocalPath(localWritten);
  zel::IFileSystem& fs = context.server();

  zel::P<zel::IFileInfoBase> info =
      onSubject(source.written, [&] { return fs.getFileInfo(source.uri, true); });
  if (info->getType() == zel::IFileInfoBase::TypeFolder)
    throw CFailure(source.written, "is a folder");
  // A local folder as target keeps the remote name, as cp does.
  zel::String localName = localWritten;
  if (isLocalFolder(localPath)) {
    localPath = joinLocalPath(localPath, source.uri.getName());
    localName = joinLocalPath(localWritten, source.uri.getName());
  }
  zel::P<zel::IIOStream> in = onSubject(source.written, [&] {
    return fs.createStream(source.uri, zel::IIOStream::AccessRead,
                           zel::TFlags<zel::IIOStream::Flags>());
  });

  CInterruptScope interruptible;
  CLocalWriter out = onSubject(localName, [&] { return CLocalWriter(localPath); });
  CProgress progress(context.out, info->getSize());
  zel::TBuffer<unsigned char> buffer(kChunk);
  zel::int64 done = 0;
  const Clock::time_point start = Clock::now();
  for (;;) {
    if (isInterrupted()) throw CInterrupted();
    const int got =
        onSubject(source.written, [&] { return in->readLax(buffer.getData(), kChunk); });
    if (got <= 0) break;
    if (!onSubject(localName, [&] { return out.write(buffer.getData(), got); }))
      throw CInterrupted();
    done += got;
    progress.update(done);
  }
  in->close();
  onSubject(localName, [&] { out.commit(); });
  progress.finish();
  reportDone(context, done, start, localName);
  return ExitSuccess;
}

// The temporary remote file of a put: closed and removed unless committed.
class CRemoteTemporary {
 public:
  CRemoteTemporary(zel::IFileSystem& fs, const zel::CURI& uri, zel::P<zel::IIOStream> stream)
      : m_fs(fs), m_uri(uri), m_stream(std::move(stream)) {}
  ~CRemoteTemporary() {
    if (m_committed) return;
    try {
      m_stream->close();
    } catch (const zel::CError&) {
      // The file goes anyway.
    }
    try {
      m_fs.deleteFile(m_uri, true);
    } catch (const zel::CError&) {
      // Nothing more can be done from here (the connection may be gone).
    }
  }
  CRemoteTemporary(const CRemoteTemporary&) = delete;
  CRemoteTemporary& operator=(const CRemoteTemporary&) = delete;
  zel::IIOStream& stream() { return *m_stream; }
  void commit() { m_committed = true; }

 private:
  zel::IFileSystem& m_fs;
  zel::CURI m_uri;
  zel::P<zel::IIOStream> m_stream;
  bool m_committed = false;
};

// Fills buffer from the reader, up to kChunk bytes or the end; -1 when
// interrupted.
int fill(CLocalReader& reader, unsigned char* buffer) {
  int filled = 0;
  while (filled < kChunk) {
    const int got = reader.read(buffer + filled, kChunk - filled);
    if (got < 0) return -1;
    if (got == 0) break;
    filled += got;
  }
  return filled;
}

int runPut(CCommandContext& context) {
  const zel::String localWritten = context.args.getOperands()[0];
  CRemotePath target = remoteOperand(context, 1);
  const zel::String localName = localFileName(localWritten);
  if (target.isShareList()) {
    throw CUsageError("'" + target.written + "': put writes inside a share (/SHARE/NAME)");
  }
  if ((target.endsWithSlash || target.isShareRoot) && localName.isEmpty()) {
    throw CUsageError("'" + target.written + "': name the remote file to write standard input to");
  }
  CLocalReader reader =
      onSubject(localWritten, [&] { return CLocalReader(absoluteLocalPath(localWritten)); });
  zel::IFileSystem& fs = context.server();

  // A remote folder as target keeps the local name, as cp does.
  const bool intoFolder = target.endsWithSlash || target.isShareRoot ||
                          onSubject(target.written, [&] { return fs.folderExists(target.uri); });
  if (intoFolder) {
    if (localName.isEmpty()) throw CFailure(target.written, "is a folder; name the file to write");
    target = target.child(localName);
  }
  const zel::CURI temporary = target.uri.getParent().append(temporaryNameFor(target.uri.getName()));

  CInterruptScope interruptible;
  CRemoteTemporary out(fs, temporary, onSubject(target.written, [&] {
                         return fs.createStream(temporary, zel::IIOStream::AccessReadWrite,
                                                zel::TFlags<zel::IIOStream::Flags>(
                                                    zel::IIOStream::FlagFailIfAlreadyExists));
                       }));
  CProgress progress(context.out, reader.getSize());
  zel::TBuffer<unsigned char> buffer(kChunk);
  zel::int64 done = 0;
  const Clock::time_point start = Clock::now();
  for (;;) {
    const int got = onSubject(localWritten, [&] { return fill(reader, buffer.getData()); });
    if (got < 0 || isInterrupted()) throw CInterrupted();
    if (got == 0) break;
    onSubject(target.written, [&] { out.stream().write(buffer.getData(), got); });
    done += got;
    progress.update(done);
  }
  onSubject(target.written, [&] {
    out.stream().close();
    fs.moveFileOrFolder(temporary, target.uri, true);
  });
  out.commit();
  progress.finish();
  reportDone(context, done, start, target.written);
  return ExitSuccess;
}

}  // namespace

CommandDef fsGetCommand() {
  return {"get",
          "REMOTE [LOCAL]",
          "copy a file from the server",
          "LOCAL may be a folder (the file keeps its name; the default is the current\n"
          "folder), a file (replaced once the copy is complete) or '-' (standard output).\n"
          "Progress is shown on a terminal for copies that take more than a second.\n",
          {},
          1,
          2,
          &runGet};
}

CommandDef fsPutCommand() {
  return {"put",
          "LOCAL REMOTE",
          "copy a file to the server",
          "LOCAL may be '-' (standard input). REMOTE may be a folder (the file keeps its\n"
          "name) or a file (replaced once the copy is complete).\n"
          "Progress is shown on a terminal for copies that take more than a second.\n",
          {},
          2,
          2,
          &runPut};
}

}  // namespace zeltool
