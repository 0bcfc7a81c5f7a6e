// The operating-system step of the local file system (internal).
//
// CFileSystem (local_file_system.cpp) owns the contract: URI conversion,
// argument checks, the open-mode decision, messages and the URI on every
// error. The functions here do one OS step each on native paths and report
// failure by throwing through throwSysError with "func" (the failing system
// call) and "action" (the fs_platform function, such as
// "fs_platform::createFolder"); the caller replaces "action" with its own
// operation (such as "CFileSystem::createFolder") and adds "uri". Nothing here
// retries except POSIX calls interrupted by a signal (EINTR).
//
// Implemented by local_file_system_posix.cpp (Linux) and
// local_file_system_win.cpp (Windows).
#pragma once

#include <string>
#include <vector>

#include "zel/core/base.h"
#include "zel/core/string.h"
#include "zel/core/types.h"
#include "zel/path/time.h"

namespace zel {
class CURI;
class IIOStream;
}  // namespace zel

namespace zel::fs_platform {

// An open file: a descriptor on Linux, a HANDLE value on Windows.
using Handle = int64;
constexpr Handle kInvalidHandle = -1;

// What opening does with a missing or an existing file.
enum class Disposition {
  OpenExisting,  // fail (not found) when missing
  OpenAlways,    // create when missing, keep the content otherwise
  CreateNew,     // fail (already exists) when present
  CreateAlways,  // create when missing, empty an existing file
};

// Opens a file. readWrite false opens for reading only. exclusive: others may
// only read while the handle is open. Windows enforces that with the share
// mode (FILE_SHARE_READ). Linux has no mandatory sharing: the handle takes a
// non-blocking flock (shared for a read-only open, exclusive for read and
// write), so exclusive opens conflict with each other as on Windows, while
// plain opens are not held off. A conflict throws a file-locking error
// (EWOULDBLOCK; Windows: ERROR_SHARING_VIOLATION).
Handle openFile(const String& path, Disposition disposition, bool readWrite, bool exclusive);
// Closes the handle; it is released even when the call throws.
void closeFile(Handle handle);
// Positional I/O: the handle has no position of its own as far as the caller
// is concerned. readAt returns the count read, less than bytes only at the
// end of the file (0 at or beyond the end). writeAt writes all bytes or throws.
int readAt(Handle handle, int64 position, void* buffer, int bytes);
void writeAt(Handle handle, int64 position, const void* buffer, int bytes);
int64 getFileSize(Handle handle);
void setFileSize(Handle handle, int64 size);
void flushFile(Handle handle);
// Byte-range locks (Linux: open file description locks, F_OFD_SETLK; Windows:
// LockFileEx with LOCKFILE_FAIL_IMMEDIATELY). Never waits: false when another
// handle holds a conflicting lock, throws on any other failure. Locks of the
// same handle do not conflict with each other on Linux (they merge); on
// Windows an exclusive range cannot overlap another lock of the same handle.
bool lockRange(Handle handle, int64 start, int64 length, bool exclusive);
void unlockRange(Handle handle, int64 start, int64 length);

enum class EntryType {
  File,
  Folder,
  Other,  // device, pipe, socket ...
};

// What statEntry learns about one entry. Times that the file system does not
// keep are invalid CTime values.
struct EntryInfo {
  EntryType type = EntryType::File;
  // The entry itself is a symbolic link (or, on Windows, a reparse point that
  // links: symbolic link or junction); type then describes the target when it
  // was followed, or the link itself (File or Folder by its kind) when not.
  bool isSymLink = false;
  bool isJunction = false;  // Windows mount point reparse point
  String symLinkTarget;     // as stored in the link; filled only for links
  int64 size = 0;
  CTime createdTime;
  CTime dataModifiedTime;
  CTime metaModifiedTime;
  CTime accessedTime;
  int64 id = -1;        // inode / file index; -1 when unknown
  int64 volumeID = -1;  // device number / volume serial; -1 when unknown
  int64 linkCount = 1;
  bool readOnly = false;
  bool hidden = false;
  bool encrypted = false;
  bool compressed = false;
  bool sparse = false;
  bool indexable = true;
  bool hasWindowsInfo = false;
  uint32 windowsAttributes = 0;
  bool hasUnixInfo = false;
  int64 unixMode = 0;  // st_mode, type bits included
  int64 unixUserID = -1;
  int64 unixGroupID = -1;
};

#ifndef _WIN32
// The bytes of a path for the system's calls (String::toFileSystemEncoding);
// plain ASCII, by far the most common case, is copied without a conversion.
std::string toNativePath(const String& path);
#endif

// false when the entry does not exist (a missing component or a component
// that is not a folder); throws on any other failure. followLinks false
// describes a symbolic link itself.
bool statEntry(const String& path, bool followLinks, EntryInfo& info);

// The kind of the entry links lead to, for the existence checks: false when
// it does not exist. One system call where the system allows it.
bool getEntryType(const String& path, EntryType& type);

// Folder listing. readFolderEntry skips "." and ".." and returns false at the
// end. A Folder is closed exactly once with closeFolder.
using Folder = void*;
Folder openFolder(const String& path);
bool readFolderEntry(Folder folder, String& name);
void closeFolder(Folder folder) noexcept;

void createFolder(const String& path);
void removeFile(const String& path);
void removeFolder(const String& path);
// Removes a link without touching what it points to: a symbolic link to a
// file or a folder, or (Windows) a junction.
void removeLink(const String& path);
// Moves or renames within a volume. Without overwrite an existing target
// fails with an already-exists error (Linux: renameat2 RENAME_NOREPLACE, and
// where the file system lacks it a link-then-unlink for files).
void renameEntry(const String& from, const String& to, bool overwrite);
// Copies content (and on Windows the attributes) of one file. Without
// overwrite an existing target fails with an already-exists error.
void copyFile(const String& from, const String& to, bool overwrite);
void createHardLink(const String& link, const String& target);
// A hard link to a folder: a junction on Windows; Linux has none and throws
// an unsupported error (EPERM from link(2) is reported as ENOTSUP).
void createFolderHardLink(const String& link, const String& target);
void createSymLink(const String& link, const String& target, bool isFolder);
String readSymLink(const String& path);

// Changes collected by a meta modifier, applied in one go. Unset fields are
// left alone. Linux: readOnly clears (true) or restores the owner's write bit
// (false) unless unixMode is set, which wins; hidden, indexable and
// windowsAttributes have no counterpart and are ignored; the creation time
// cannot be set and is ignored. Windows: unixMode is ignored.
struct MetaChanges {
  bool setCreatedTime = false;
  CTime createdTime;
  bool setDataModifiedTime = false;
  CTime dataModifiedTime;
  bool setReadOnly = false;
  bool readOnly = false;
  bool setHidden = false;
  bool hidden = false;
  bool setIndexable = false;
  bool indexable = false;
  bool setWindowsAttributes = false;
  uint64 windowsAttributes = 0;
  bool setUnixMode = false;
  uint64 unixMode = 0;
  bool any() const {
    return setCreatedTime || setDataModifiedTime || setReadOnly || setHidden || setIndexable ||
           setWindowsAttributes || setUnixMode;
  }
};
void applyMetaChanges(const String& path, bool followLinks, const MetaChanges& changes);

// Free bytes available to the caller on the volume of path.
int64 getFreeSpace(const String& path);
// The sector (Linux: the file system's block) size of the volume of path.
int64 getSectorSize(const String& path);
// The root folder of the volume (Linux: the mount point) that holds path.
String getVolumeRoot(const String& path);
// The name of the account the process runs under.
String getCurrentUserName();
// Names of Unix user and group IDs; empty when unknown (always on Windows).
String getUserName(int64 uid);
String getGroupName(int64 gid);

// Opens the named sub data stream of the file at path, uri being the file's
// address (for the stream's getURI and errors). Windows: the alternate data
// stream "path:name" through openFile, as a CFileStream. Linux: the extended
// attribute "user.<name>", held in memory and written back on flush and
// close; file systems without user attributes throw a CFileSystemError with
// ProblemUnsupported. The disposition refers to the sub data stream (the file
// itself must exist on Linux).
P<IIOStream> openSubDataStream(const CURI& uri, const String& path, const String& name,
                               Disposition disposition, bool readWrite, bool exclusive);

// The entry's native metadata as one block. Windows: the BackupRead stream.
// Linux: every extended attribute of every namespace the caller may read,
// serialised as a sequence of records, each
//   uint32 little-endian name length, name bytes (e.g. "user.x"),
//   uint32 little-endian value length, value bytes,
// in the order listxattr reports them; an entry without attributes gives an
// empty block.
std::vector<unsigned char> readNativeMetaData(const String& path, bool followLinks);

}  // namespace zel::fs_platform
