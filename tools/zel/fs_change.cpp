// zel fs mkdir, rm and mv: changes on the server.
#include "fs.h"

namespace zeltool {

namespace {

void refuseShareLevel(const CRemotePath& path, const char* what) {
  if (path.isShareList() || path.isShareRoot) throw CFailure(path.written, what);
}

int runMkdir(CCommandContext& context) {
  const std::vector<CRemotePath> paths = remoteOperands(context);
  zel::IFileSystem& fs = context.server();
  return forEachPath(context, paths, [&](const CRemotePath& path) {
    onSubject(path.written,
              [&] { fs.ensureFolderExists(path.uri, zel::IFileSystem::CreateFolderParents); });
  });
}

int runRemove(CCommandContext& context) {
  const std::vector<CRemotePath> paths = remoteOperands(context);
  zel::IFileSystem& fs = context.server();
  return forEachPath(context, paths, [&](const CRemotePath& path) {
    refuseShareLevel(path, "a share's root cannot be removed");
    onSubject(path.written, [&] {
      zel::P<zel::IFileInfoBase> info = fs.getFileInfo(path.uri, false);
      if (info->getSymLinkType() != zel::IFileInfoBase::SymLinkNone) {
        fs.deleteSymLink(path.uri);
      } else if (info->getType() == zel::IFileInfoBase::TypeFolder) {
        fs.deleteEmptyFolder(path.uri, false);
      } else {
        fs.deleteFile(path.uri, false);
      }
    });
  });
}

int runMove(CCommandContext& context) {
  const CRemotePath from = remoteOperand(context, 0);
  CRemotePath to = remoteOperand(context, 1);
  refuseShareLevel(from, "a share's root cannot be moved");
  if (to.isShareList()) throw CUsageError("'" + to.written + "': mv moves inside the shares");
  zel::IFileSystem& fs = context.server();
  // Into an existing folder, keeping the name, as mv does.
  if (to.endsWithSlash || to.isShareRoot ||
      onSubject(to.written, [&] { return fs.folderExists(to.uri); })) {
    to = to.child(from.uri.getName());
  }
  try {
    fs.moveFileOrFolder(from.uri, to.uri, context.args.has("force"));
  } catch (const zel::CError& e) {
    // The target is at fault when it is in the way; otherwise the source.
    const bool targetsFault = classifyProblem(e) == zel::CFileSystemError::ProblemAlreadyExists;
    throw CFailure(targetsFault ? to.written : from.written, e);
  }
  return ExitSuccess;
}

}  // namespace

CommandDef fsMkdirCommand() {
  return {"mkdir", "REMOTE...", "create folders (and missing parents; existing ones are fine)",
          nullptr, {},          1,
          -1,      &runMkdir};
}

CommandDef fsRemoveCommand() {
  return {"rm", "REMOTE...", "delete files, links and empty folders", nullptr, {}, 1,
          -1,   &runRemove};
}

CommandDef fsMoveCommand() {
  return {"mv",
          "FROM TO",
          "move or rename; into TO when TO is a folder",
          "An existing file at TO is kept (the move fails) unless --force is given.\n",
          {{"force", 'f', nullptr, "replace an existing file at TO"}},
          2,
          2,
          &runMove};
}

}  // namespace zeltool
