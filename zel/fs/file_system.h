// IFileSystem, the one interface through which files and folders are reached,
// and the interfaces of what it hands out: file information, folder listings,
// attribute changers and background operations.
//
// Every entry is addressed by a CURI. The order of the virtual operations of
// each interface is fixed: the cross-process file system numbers its messages
// after it and every implementation follows it. Append new operations at the
// end only.
//
// Every operation reports failure by throwing a CError (most often a CIOError
// with the entry's URI under "uri", or a CFileSystemError naming the problem);
// no operation reports failure through its result. Objects handed out live on
// independently of the file system call that made them.
//
// Meaning of the plain bool and int arguments (the cross-process protocol
// carries them unchanged, so every implementation reads them the same way):
//   getFileInfo(uri, followSymLinks)          true: information on what a
//                                             symbolic link finally points to;
//                                             false: on the link itself.
//   createMetaModifier(uri, followSymLinks)   the same for the entry changed.
//   createFolder(uri, flags)                  CreateFolderFlags bits.
//   ensureFolderExists(uri, flags)            the same bits; returns true when
//                                             it created the folder, false
//                                             when a folder was there already.
//   deleteFile(uri, force)                    true: a file marked read-only
//                                             (isReadOnly()) is deleted too;
//                                             false: such a file is refused
//                                             with ProblemAccessDenied.
//   deleteEmptyFolder(uri, force)             the same for a read-only folder.
//   moveFileOrFolder(from, to, overwrite)     true: an existing file at `to`
//                                             is replaced; false: an existing
//                                             entry at `to` makes the move fail
//                                             (ProblemAlreadyExists). A folder
//                                             at `to` is never replaced.
//   copyFile(from, to, overwrite)             the same for the copy's target.
//   backgroundStore(..., overwrite, ...)      true: an existing file is
//                                             emptied and rewritten; false:
//                                             an existing file makes the
//                                             operation fail.
//   backgroundCreateFolder, backgroundMoveFileOrFolder: as their synchronous
//   operations; backgroundDeleteFile deletes as deleteFile(uri, false).
//   getNativeMetaData(uri, followSymLinks, which)
//                                             followSymLinks as for
//                                             getFileInfo; `which` selects a
//                                             platform-defined part of the
//                                             metadata, empty for everything
//                                             the platform's backup reading
//                                             delivers; names an
//                                             implementation does not know are
//                                             refused with CInvalidArgError.
#pragma once

#include "zel/core/base.h"
#include "zel/core/buffer.h"
#include "zel/core/export.h"
#include "zel/core/flags.h"
#include "zel/core/props.h"
#include "zel/core/string.h"
#include "zel/core/types.h"
#include "zel/path/time.h"
#include "zel/path/uri.h"
#include "zel/fs/uri_selector.h"
#include "zel/stream/stream.h"

namespace zel {

class IBackgroundOp;

// Supplies and updates credentials for network locations. A file system asks
// it when it needs login data for a location and tells it when it learnt new
// data (for example after the user typed a password). The cross-process file
// system forwards both questions from the server to the client's manager.
// Property keys are the file system's own (user name, password ...).
class IFileSystemLoginManager : public virtual IBase {
 public:
  ~IFileSystemLoginManager() override = default;

  // The login data for uri; selector (may be null) receives the area the
  // data applies to, so the caller can reuse it for every URI there. Empty
  // props when nothing is known.
  virtual CProps getLoginInfo(const CURI& uri, CURISelector* selector) = 0;
  // New login data for the area selector describes.
  virtual void updateLoginInfo(const CURISelector& selector, const CProps& props) = 0;
};

// Told when a background operation has finished, successfully or not. Called
// once per operation, on the thread that ran it (or, for an operation that
// failed before it started, on the thread that asked for it), after the
// operation reports hasFinished(). An exception it throws is logged and
// otherwise ignored.
class IDoneListener : public virtual IBase {
 public:
  ~IDoneListener() override = default;
  virtual void onBackgroundOpDone(IBackgroundOp* op) = 0;
};

// An operation running in the background. Finished is final.
class IBackgroundOp : public virtual IBase {
 public:
  ~IBackgroundOp() override = default;

  // Never blocks.
  virtual bool hasFinished() = 0;
  // Waits up to timeoutMs milliseconds (-1: without limit, 0: not at all);
  // true when the operation has finished.
  virtual bool waitFinished(int timeoutMs) = 0;
  // Throws the error the operation failed with; returns when it succeeded.
  // On an operation that has not finished yet it throws CBadStateError.
  virtual void throwErrorIfFailed() = 0;
};

// Information on one file or folder, gathered when the object was made.
//
// Symbolic links: the SymLink* values describe the entry named by the address
// itself, whether or not the link was followed (SymLinkNone when it is no
// link). Every other value describes what was asked for: the final target
// when links were followed, the link itself when not. An unfollowed link
// reports as its type the kind of its target (TypeFile, TypeFolder), or
// TypeUnknown when the target is missing and the platform cannot tell.
class IFileInfoBase : public virtual IBase {
 public:
  enum Type {
    TypeUnknown = 0,  // not known (a dangling link)
    TypeFile = 1,
    TypeFolder = 2,
    TypeOther = 3,  // devices, pipes, sockets and other special entries
  };
  // Which kind of link object the entry is. Windows keeps file and folder
  // links apart (they are made and removed differently); a Unix link takes
  // the kind of its target, and SymLinkUnknownTarget when that is missing.
  enum SymLinkType {
    SymLinkNone = 0,
    SymLinkFile = 1,
    SymLinkFolder = 2,
    SymLinkUnknownTarget = 3,
  };
  // The platform mechanism behind a link.
  enum SymLinkFlavor {
    SymLinkFlavorNone = 0,
    SymLinkFlavorUnix = 1,             // a POSIX symbolic link
    SymLinkFlavorWindowsSymLink = 2,   // IO_REPARSE_TAG_SYMLINK
    SymLinkFlavorWindowsJunction = 3,  // IO_REPARSE_TAG_MOUNT_POINT
    SymLinkFlavorOther = 4,            // another reparse point that acts as a link
  };
  // Bits of getCachedInfoMask(): bit n-1 stands for operation n of the list
  // below, so a mask can be read against the operations one by one. The
  // has*Info flags and the mask itself have no bit.
  enum CachedInfo : uint64 {
    CachedType = uint64{1} << 0,
    CachedSize = uint64{1} << 1,
    CachedSymLinkType = uint64{1} << 2,
    CachedSymLinkFlavor = uint64{1} << 3,
    CachedSymLinkTargetPath = uint64{1} << 4,
    CachedCreatedTime = uint64{1} << 5,
    CachedDataModifiedTime = uint64{1} << 6,
    CachedMetaModifiedTime = uint64{1} << 7,
    CachedID = uint64{1} << 8,
    CachedTemporaryVolumeID = uint64{1} << 9,
    CachedHardLinked = uint64{1} << 10,
    CachedReadOnly = uint64{1} << 11,
    CachedHidden = uint64{1} << 12,
    CachedEncrypted = uint64{1} << 13,
    CachedCompressed = uint64{1} << 14,
    CachedSparse = uint64{1} << 15,
    CachedIndexable = uint64{1} << 16,
    CachedWindowsSecurityString = uint64{1} << 18,
    CachedWindowsAttributes = uint64{1} << 19,
    CachedUnixMode = uint64{1} << 21,
    CachedUnixUserID = uint64{1} << 22,
    CachedUnixUserName = uint64{1} << 23,
    CachedUnixGroupID = uint64{1} << 24,
    CachedUnixGroupName = uint64{1} << 25,
  };

  // The name the cross-process protocol uses for these bits.
  using InfoFlag = CachedInfo;

  ~IFileInfoBase() override = default;

  virtual Type getType() = 0;                                  // 1
  virtual int64 getSize() const = 0;                           // 2, bytes; 0 for folders
  virtual SymLinkType getSymLinkType() = 0;                    // 3
  virtual SymLinkFlavor getSymLinkFlavor() = 0;                // 4
  virtual String getSymLinkTargetPath() = 0;                   // 5, as stored in the link
  virtual const CTime& getCreatedTime() const = 0;             // 6, invalid when unknown
  virtual const CTime& getDataModifiedTime() const = 0;        // 7
  virtual const CTime& getMetaModifiedTime() const = 0;        // 8
  virtual int64 tryGetID() const = 0;                          // 9, 0 when unknown
  virtual int64 tryGetTemporaryVolumeID() const = 0;           // 10, 0 when unknown
  virtual bool isHardLinked() const = 0;                       // 11, more than one name
  virtual bool isReadOnly() const = 0;                         // 12
  virtual bool isHidden() const = 0;                           // 13
  virtual bool isEncrypted() const = 0;                        // 14
  virtual bool isCompressed() const = 0;                       // 15
  virtual bool isSparse() const = 0;                           // 16
  virtual bool isIndexable() const = 0;                        // 17
  virtual bool hasWindowsInfo() const = 0;                     // 18: 19 and 20 meaningful
  virtual const String& getWindowsSecurityString() const = 0;  // 19, SDDL text
  virtual unsigned int getWindowsAttributes() const = 0;       // 20, FILE_ATTRIBUTE_* bits
  virtual bool hasUnixInfo() const = 0;                        // 21: 22 to 26 meaningful
  virtual int64 getUnixMode() const = 0;                       // 22, st_mode
  virtual int64 getUnixUserID() const = 0;                     // 23
  virtual String getUnixUserName() = 0;                        // 24
  virtual int64 getUnixGroupID() const = 0;                    // 25
  virtual String getUnixGroupName() = 0;                       // 26
  virtual uint64 getCachedInfoMask() const = 0;                // 27, CachedInfo bits
};

// The plain information object: stores every value and has a setter for
// each. Each setter also sets the value's bit in the cached-info mask;
// setCachedInfoMask() replaces the mask as a whole (after the setters, when
// the mask comes from elsewhere, as on the wire). Defaults: TypeUnknown, size
// 0, no link, invalid times, IDs 0, all flags false, empty texts, mask 0.
// Not synchronised.
class ZEL_API CFileInfoBase : public CBase, public virtual IFileInfoBase {
 public:
  CFileInfoBase() = default;
  ~CFileInfoBase() override;

  // Copies every value and the mask of other. The getters that are not
  // const (type, link values, user and group names) are reads that an
  // implementation may answer on demand; they are asked too.
  void construct(const IFileInfoBase& other);

  Type getType() override { return m_type; }
  int64 getSize() const override { return m_size; }
  SymLinkType getSymLinkType() override { return m_symLinkType; }
  SymLinkFlavor getSymLinkFlavor() override { return m_symLinkFlavor; }
  String getSymLinkTargetPath() override { return m_symLinkTargetPath; }
  const CTime& getCreatedTime() const override { return m_createdTime; }
  const CTime& getDataModifiedTime() const override { return m_dataModifiedTime; }
  const CTime& getMetaModifiedTime() const override { return m_metaModifiedTime; }
  int64 tryGetID() const override { return m_id; }
  int64 tryGetTemporaryVolumeID() const override { return m_temporaryVolumeID; }
  bool isHardLinked() const override { return m_hardLinked; }
  bool isReadOnly() const override { return m_readOnly; }
  bool isHidden() const override { return m_hidden; }
  bool isEncrypted() const override { return m_encrypted; }
  bool isCompressed() const override { return m_compressed; }
  bool isSparse() const override { return m_sparse; }
  bool isIndexable() const override { return m_indexable; }
  bool hasWindowsInfo() const override { return m_hasWindowsInfo; }
  const String& getWindowsSecurityString() const override { return m_windowsSecurityString; }
  unsigned int getWindowsAttributes() const override { return m_windowsAttributes; }
  bool hasUnixInfo() const override { return m_hasUnixInfo; }
  int64 getUnixMode() const override { return m_unixMode; }
  int64 getUnixUserID() const override { return m_unixUserID; }
  String getUnixUserName() override { return m_unixUserName; }
  int64 getUnixGroupID() const override { return m_unixGroupID; }
  String getUnixGroupName() override { return m_unixGroupName; }
  uint64 getCachedInfoMask() const override { return m_cachedInfoMask; }

  void setType(Type type);
  void setSize(int64 size);
  void setSymLinkType(SymLinkType type);
  void setSymLinkFlavor(SymLinkFlavor flavor);
  void setSymLinkTargetPath(const String& path);
  void setCreatedTime(const CTime& time);
  void setDataModifiedTime(const CTime& time);
  void setMetaModifiedTime(const CTime& time);
  void setID(int64 id);
  void setTemporaryVolumeID(int64 id);
  void setHardLinked(bool value);
  void setReadOnly(bool value);
  void setHidden(bool value);
  void setEncrypted(bool value);
  void setCompressed(bool value);
  void setSparse(bool value);
  void setIndexable(bool value);
  void setHasWindowsInfo(bool value);
  void setWindowsSecurityString(const String& text);
  void setWindowsAttributes(unsigned int attributes);
  void setHasUnixInfo(bool value);
  void setUnixMode(int64 mode);
  void setUnixUserID(int64 id);
  void setUnixUserName(const String& name);
  void setUnixGroupID(int64 id);
  void setUnixGroupName(const String& name);
  void setCachedInfoMask(uint64 mask) { m_cachedInfoMask = mask; }

 private:
  void markCached(CachedInfo bit) { m_cachedInfoMask |= bit; }

  Type m_type = TypeUnknown;
  int64 m_size = 0;
  SymLinkType m_symLinkType = SymLinkNone;
  SymLinkFlavor m_symLinkFlavor = SymLinkFlavorNone;
  String m_symLinkTargetPath;
  CTime m_createdTime;
  CTime m_dataModifiedTime;
  CTime m_metaModifiedTime;
  int64 m_id = 0;
  int64 m_temporaryVolumeID = 0;
  bool m_hardLinked = false;
  bool m_readOnly = false;
  bool m_hidden = false;
  bool m_encrypted = false;
  bool m_compressed = false;
  bool m_sparse = false;
  bool m_indexable = false;
  bool m_hasWindowsInfo = false;
  String m_windowsSecurityString;
  unsigned int m_windowsAttributes = 0;
  bool m_hasUnixInfo = false;
  int64 m_unixMode = 0;
  int64 m_unixUserID = 0;
  String m_unixUserName;
  int64 m_unixGroupID = 0;
  String m_unixGroupName;
  uint64 m_cachedInfoMask = 0;
};

// Information on an entry that knows its own address.
class IFileInfo : public virtual IFileInfoBase {
 public:
  ~IFileInfo() override = default;
  virtual CURI getURI() = 0;
};

// CFileInfoBase with the entry's address.
class ZEL_API CFileInfo : public CFileInfoBase, public virtual IFileInfo {
 public:
  CFileInfo() = default;
  explicit CFileInfo(const CURI& uri) : m_uri(uri) {}
  ~CFileInfo() override;

  CURI getURI() override { return m_uri; }
  void setURI(const CURI& uri) { m_uri = uri; }

 private:
  CURI m_uri;
};

// A listing of one folder. It starts before the first entry; the order of
// entries is the file system's. "." and ".." are never listed.
class IFolderContentsIterator : public virtual IBase {
 public:
  ~IFolderContentsIterator() override = default;

  // Moves to the next entry; false when there is none.
  virtual bool nextItem() = 0;
  // The current entry's name (not its address). Off an entry (before the
  // first nextItem(), after it returned false): CBadStateError
  // "<class>::getItemName called but iterator is not on an item."
  virtual String getItemName() = 0;
  // The current entry's information, links not followed. Off an entry: as
  // getItemName, naming getItemInfo.
  virtual P<IFileInfoBase> getItemInfo() = 0;
};

// Changes times and attributes of one entry. The setters only record; nothing
// reaches the entry before applyCachedChanges(), which writes all recorded
// changes at once. A modifier dropped without applyCachedChanges() changes
// nothing. Attributes a platform does not have are ignored there
// (setWindowsAttributes on Linux, setUnixMode on Windows).
class IFileMetaModifier : public virtual IBase {
 public:
  ~IFileMetaModifier() override = default;

  virtual void applyCachedChanges() = 0;                     // 1
  virtual void setCreatedTime(const CTime& time) = 0;        // 2
  virtual void setDataModifiedTime(const CTime& time) = 0;   // 3
  virtual void setIndexable(bool indexable) = 0;             // 4
  virtual void setHidden(bool hidden) = 0;                   // 5
  virtual void setReadOnly(bool readOnly) = 0;               // 6
  virtual void setWindowsAttributes(uint64 attributes) = 0;  // 7
  virtual void setUnixMode(uint64 mode) = 0;                 // 8
};

class IFileSystem : public virtual IBase {
 public:
  // Bits of the int argument of createFolder, ensureFolderExists and
  // backgroundCreateFolder. Other bits are reserved: implementations refuse
  // them with CInvalidArgError (checkCreateFolderFlags).
  enum CreateFolderFlags {
    // Missing parent folders are created too; without it a missing parent
    // makes the call fail (ProblemNotFound).
    CreateFolderParents = 0x1,
    // The new folder (not created parents) is marked hidden where the
    // platform has such a mark (Windows); ignored elsewhere.
    CreateFolderHidden = 0x2,
  };
  static constexpr int kCreateFolderKnownFlags = CreateFolderParents | CreateFolderHidden;

  // The entry's native metadata in one block of bytes, as the platform's
  // backup reading delivers it (on Windows the stream BackupRead produces).
  class CNativeMetaData : public TBuffer<unsigned char> {
   public:
    using TBuffer<unsigned char>::TBuffer;
    ~CNativeMetaData() override = default;
  };

  ~IFileSystem() override = default;

  // 1
  virtual void setLoginManager(IFileSystemLoginManager* loginManager) = 0;
  // 2: writes length bytes from source to uri without blocking the caller.
  // source is read on another thread: the caller must leave it alone until
  // the operation has finished.
  virtual P<IBackgroundOp> backgroundStore(const CURI& uri, int64 length, IInStream* source,
                                           bool overwrite, IDoneListener* listener) = 0;
  // 3
  virtual P<IBackgroundOp> backgroundCreateFolder(const CURI& uri, int flags,
                                                  IDoneListener* listener) = 0;
  // 4
  virtual P<IBackgroundOp> backgroundMoveFileOrFolder(const CURI& from, const CURI& to,
                                                      bool overwrite, IDoneListener* listener) = 0;
  // 5
  virtual P<IBackgroundOp> backgroundDeleteFile(const CURI& uri, IDoneListener* listener) = 0;
  // 6
  virtual P<IFileInfoBase> getFileInfo(const CURI& uri, bool followSymLinks) = 0;
  // 7
  virtual P<IFileMetaModifier> createMetaModifier(const CURI& uri, bool followSymLinks) = 0;
  // 8
  virtual int64 getFileSectorSize(const CURI& uri) = 0;
  // 9
  virtual P<IFolderContentsIterator> getFolderContents(const CURI& uri) = 0;
  // 10: see getOpenDisposition (open_mode.h) for access and flags.
  virtual P<IIOStream> createStream(const CURI& uri, IIOStream::Access access,
                                    TFlags<IIOStream::Flags> flags) = 0;
  // 11
  virtual P<IIOStream> createSubDataStream(const CURI& uri, const String& name,
                                           IIOStream::Access access,
                                           TFlags<IIOStream::Flags> flags) = 0;
  // 12: fails when the entry exists already (ProblemAlreadyExists).
  virtual void createFolder(const CURI& uri, int flags) = 0;
  // 13: true when the folder was created. A file at uri: ProblemWrongType.
  virtual bool ensureFolderExists(const CURI& uri, int flags) = 0;
  // 14
  virtual void ensureFileExists(const CURI& uri) = 0;
  // 15 to 18
  virtual void createFileHardLink(const CURI& link, const CURI& target) = 0;
  virtual void createFolderHardLink(const CURI& link, const CURI& target) = 0;
  virtual void createFileSymLink(const CURI& link, const CURI& target) = 0;
  virtual void createFolderSymLink(const CURI& link, const CURI& target) = 0;
  // 19: true only for a file. 20: only for a folder. 21: for either.
  virtual bool fileExists(const CURI& uri) = 0;
  virtual bool folderExists(const CURI& uri) = 0;
  virtual bool pathExists(const CURI& uri) = 0;
  // 22: a fast test that a folder can be reached.
  virtual bool quickCheckFolderAccessible(const CURI& uri) = 0;
  // 23
  virtual bool isFolderEmpty(const CURI& uri) = 0;
  // 24
  virtual void deleteFile(const CURI& uri, bool force) = 0;
  // 25: removes a link, not what it points to.
  virtual void deleteSymLink(const CURI& uri) = 0;
  // 26
  virtual void deleteEmptyFolder(const CURI& uri, bool force) = 0;
  // 27: removes a folder link.
  virtual void unlinkFolder(const CURI& uri) = 0;
  // 28
  virtual CURI getVolumeRootPath(const CURI& uri) = 0;
  // 29, 30: an address in folder, built from name, where nothing exists yet.
  virtual CURI createUniqueFilename(const CURI& folder, const String& name) = 0;
  virtual CURI createUniqueFolderName(const CURI& folder, const String& name) = 0;
  // 31, 32
  virtual void moveFileOrFolder(const CURI& from, const CURI& to, bool overwrite) = 0;
  virtual void copyFile(const CURI& from, const CURI& to, bool overwrite) = 0;
  // 33: free bytes available to the caller where the folder lies.
  virtual int64 getFreeSpaceInFolder(const CURI& uri) = 0;
  // 34
  virtual String getAccountOrUserNameUsedForAccess(const CURI& uri) = 0;
  // 35
  virtual P<CNativeMetaData> getNativeMetaData(const CURI& uri, bool followSymLinks,
                                               const String& which) = 0;
};

// Throws CInvalidArgError, naming function, when flags holds bits outside
// IFileSystem::kCreateFolderKnownFlags.
ZEL_API void checkCreateFolderFlags(int flags, const String& function);

}  // namespace zel
