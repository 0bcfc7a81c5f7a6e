// CFileSystem: IFileSystem on the local disks (and, on Windows, on shares
// reached by UNC paths).
//
// Addresses are "file" URIs; any other URI throws CURIIncompatibleError
// before anything is touched. Every failure of the OS is thrown once, as the
// system error (domain "errno" on Linux, "sys" on Windows) with the
// parameters "func" (the failing system call), "action" (the operation, such
// as "CFileSystem::createFolder") and "uri" (the address the operation was
// given; "from" and "to" hold the second address where there are two).
// Failures decided here (a read-only file without force, a folder where a
// file was expected ...) are CFileSystemError with the problem set.
//
// Decisions:
//   - createUniqueFilename(folder, "name.ext") returns folder/"name.ext" when
//     nothing exists there, else the first free of "name (2).ext",
//     "name (3).ext" ... (up to "name (10000).ext", then CIOError). The
//     extension is what follows the last "." that is not the first
//     character; createUniqueFolderName never splits an extension. Only the
//     name is chosen, nothing is created, so another process may take it
//     before the caller does.
//   - isFolderEmpty and quickCheckFolderAccessible on a missing folder:
//     isFolderEmpty throws (not found), quickCheckFolderAccessible is false.
//   - deleteFile refuses a folder (ProblemWrongType); deleteEmptyFolder
//     refuses a file (ProblemWrongType) and a folder with entries (the
//     system's "not empty" error, isFolderNotEmptyError).
//   - deleteSymLink and unlinkFolder remove the link only; on anything that
//     is no link they throw CFileSystemError ProblemWrongType.
//   - getVolumeRootPath: Linux gives the mount point holding the entry.
//   - createFolderHardLink: a junction on Windows; unsupported on Linux.
//   - Sub data streams: NTFS alternate data streams on Windows; on Linux
//     extended attributes "user.<name>" (values up to 64 KiB, held in memory
//     while the stream is open and written back on flush and close). Where
//     the file system has no user attributes the open throws
//     CFileSystemError ProblemUnsupported.
//   - getNativeMetaData with an empty `which` gives everything: Windows the
//     BackupRead stream, Linux every readable extended attribute (layout in
//     local_file_system_platform.h). Any other `which` is refused.
//   - FlagExclusive on Linux is advisory (see fs_platform::openFile).
//   - Background operations run one at a time, in order, on one thread that
//     the file system starts when the first is asked for and stops in
//     dispose() or its destructor. The running operation finishes; those
//     still queued then fail with the worker's abort error. A request that
//     cannot start (a foreign URI, bad arguments) returns an already failed
//     operation (CErrorBackgroundOp).
//
// Thread safety: every operation may be called from any thread at once; the
// objects handed out (streams, iterators, modifiers) belong to one thread at
// a time.
#pragma once

#include <mutex>

#include "zel/core/export.h"
#include "zel/fs/file_stream.h"
#include "zel/fs/file_system.h"

namespace zel {

class CBackgroundOpThread;

class ZEL_API CFileSystem : public CBase, public IFileSystem {
 public:
  CFileSystem();
  ~CFileSystem() override;

  // Stops the background thread (see above). Idempotent; later background
  // requests start a new thread.
  void dispose();

  void setLoginManager(IFileSystemLoginManager* loginManager) override;
  P<IBackgroundOp> backgroundStore(const CURI& uri, int64 length, IInStream* source, bool overwrite,
                                   IDoneListener* listener) override;
  P<IBackgroundOp> backgroundCreateFolder(const CURI& uri, int flags, IDoneListener* listener) override;
  P<IBackgroundOp> backgroundMoveFileOrFolder(const CURI& from, const CURI& to, bool overwrite,
                                              IDoneListener* listener) override;
  P<IBackgroundOp> backgroundDeleteFile(const CURI& uri, IDoneListener* listener) override;
  P<IFileInfoBase> getFileInfo(const CURI& uri, bool followSymLinks) override;
  P<IFileMetaModifier> createMetaModifier(const CURI& uri, bool followSymLinks) override;
  int64 getFileSectorSize(const CURI& uri) override;
  P<IFolderContentsIterator> getFolderContents(const CURI& uri) override;
  P<IIOStream> createStream(const CURI& uri, IIOStream::Access access,
                            TFlags<IIOStream::Flags> flags) override;
  P<IIOStream> createSubDataStream(const CURI& uri, const String& name, IIOStream::Access access,
                                   TFlags<IIOStream::Flags> flags) override;
  void createFolder(const CURI& uri, int flags) override;
  bool ensureFolderExists(const CURI& uri, int flags) override;
  void ensureFileExists(const CURI& uri) override;
  void createFileHardLink(const CURI& link, const CURI& target) override;
  void createFolderHardLink(const CURI& link, const CURI& target) override;
  void createFileSymLink(const CURI& link, const CURI& target) override;
  void createFolderSymLink(const CURI& link, const CURI& target) override;
  bool fileExists(const CURI& uri) override;
  bool folderExists(const CURI& uri) override;
  bool pathExists(const CURI& uri) override;
  bool quickCheckFolderAccessible(const CURI& uri) override;
  bool isFolderEmpty(const CURI& uri) override;
  void deleteFile(const CURI& uri, bool force) override;
  void deleteSymLink(const CURI& uri) override;
  void deleteEmptyFolder(const CURI& uri, bool force) override;
  void unlinkFolder(const CURI& uri) override;
  CURI getVolumeRootPath(const CURI& uri) override;
  CURI createUniqueFilename(const CURI& folder, const String& name) override;
  CURI createUniqueFolderName(const CURI& folder, const String& name) override;
  void moveFileOrFolder(const CURI& from, const CURI& to, bool overwrite) override;
  void copyFile(const CURI& from, const CURI& to, bool overwrite) override;
  int64 getFreeSpaceInFolder(const CURI& uri) override;
  String getAccountOrUserNameUsedForAccess(const CURI& uri) override;
  P<CNativeMetaData> getNativeMetaData(const CURI& uri, bool followSymLinks, const String& which) override;

  // The information object for a native path (used by the folder iterator).
  static P<IFileInfoBase> makeFileInfo(const String& path, bool followSymLinks, const CURI& uri,
                                       const char* action);

 private:
  P<CBackgroundOpThread> getBackgroundThread();
  CURI createUniqueName(const CURI& folder, const String& name, bool splitExtension,
                        const char* action);
  void createFolderImpl(const CURI& uri, int flags, const char* action);

  std::mutex m_mutex;  // guards the members below
  P<IFileSystemLoginManager> m_loginManager;
  P<CBackgroundOpThread> m_backgroundThread;
};

}  // namespace zel
