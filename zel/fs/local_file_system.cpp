#include "zel/fs/local_file_system.h"

#include <string>
#include <type_traits>

#include "zel/core/error.h"
#include "zel/fs/background_op_thread.h"
#include "zel/fs/local_file_system_platform.h"
#include "zel/fs/open_mode.h"

namespace zel {

namespace {

using fs_platform::EntryInfo;
using fs_platform::EntryType;

String actionName(const char* action) { return String("CFileSystem::") + action; }

// The native path of a file URI. On Unix-like systems the common case, a
// plain ASCII path without escapes, empty or "." / ".." segments, is its own
// native path; it skips the general conversion, which decodes and checks
// each segment and costs several times the system call it precedes.
bool isPlainUnixPath(const CURI& uri) {
  if (uri.hasAuthority() && !uri.getHost().isEmpty()) return false;
  if (uri.hasQuery() || uri.hasFragment() || uri.hasUserInfo() || uri.getPort() >= 0) return false;
  const String& scheme = uri.getScheme();
  if (scheme.getLength() != 4) return false;
  for (int i = 0; i < 4; ++i) {
    if ((scheme.safeAt(i) | 0x20) != L"file"[i]) return false;  // ASCII case folding
  }
  const wchar_t* path = uri.getPath().toWChar();
  const int length = uri.getPath().getLength();
  if (length == 0 || path[0] != L'/') return false;
  for (int i = 0; i < length; ++i) {
    const wchar_t c = path[i];
    if (c <= 0x20 || c >= 0x7F || c == L'%') return false;
    if (c == L'/' && i + 1 < length) {
      // An empty segment, or a "." or ".." one.
      const wchar_t* next = path + i + 1;
      const int rest = length - i - 1;
      if (next[0] == L'/') return false;
      if (next[0] == L'.' && (rest == 1 || next[1] == L'/')) return false;
      if (next[0] == L'.' && next[1] == L'.' && (rest == 2 || next[2] == L'/')) return false;
    }
  }
  return true;
}

String toPath(const CURI& uri) {
  if constexpr (std::is_same_v<CNativePath, CUnixPath>) {
    if (isPlainUnixPath(uri)) {
      const String& path = uri.getPath();
      const int length = path.getLength();
      // A trailing separator names the same folder.
      if (length > 1 && path.safeAt(length - 1) == L'/') return String(path.toWChar(), length - 1);
      return path;
    }
  }
  return uri.toNativePath().toString();
}

// Adds the operation and the address to an error escaping an OS step. A
// system error (it has "func") names our operation as its action; errors of
// our own keep theirs. An address already present (an inner call's) stays.
void decorate(CError& error, const char* action, const char* key, const CURI& uri) {
  CProps& params = error.getParams();
  if (params.has("func")) params.set("action", actionName(action));
  if (!params.has(key)) params.set(key, uri.toString());
}

template <class F>
auto guarded(const char* action, const CURI& uri, F&& step) -> decltype(step()) {
  try {
    return step();
  } catch (CError& e) {
    decorate(e, action, "uri", uri);
    throw;
  }
}

template <class F>
auto guarded2(const char* action, const CURI& from, const CURI& to, F&& step) -> decltype(step()) {
  try {
    return step();
  } catch (CError& e) {
    decorate(e, action, "uri", from);
    decorate(e, action, "from", from);
    decorate(e, action, "to", to);
    throw;
  }
}

[[noreturn]] void throwProblem(CFileSystemError::Problem problem, const String& message,
                               const char* action, const CURI& uri) {
  CProps params;
  params.set("action", actionName(action));
  params.set(CIOError::paramURI(), uri.toString());
  throw CFileSystemError(problem, CIOError(CIOError::Unknown, message, params));
}

[[noreturn]] void throwNotFound(const char* action, const CURI& uri) {
  throwProblem(CFileSystemError::ProblemNotFound, "The file or folder does not exist.", action, uri);
}

fs_platform::Disposition toPlatform(OpenDisposition disposition) {
  switch (disposition) {
    case OpenDisposition::OpenExisting:
      return fs_platform::Disposition::OpenExisting;
    case OpenDisposition::OpenAlways:
      return fs_platform::Disposition::OpenAlways;
    case OpenDisposition::CreateNew:
      return fs_platform::Disposition::CreateNew;
    case OpenDisposition::CreateAlways:
      return fs_platform::Disposition::CreateAlways;
  }
  return fs_platform::Disposition::OpenExisting;
}

bool isRealFolder(const EntryInfo& info) { return info.type == EntryType::Folder && !info.isSymLink; }

// User and group names cost a lookup in the account database each; they are
// found when first asked for, which is why their bits are not in the mask.
class CLocalFileInfo : public CFileInfoBase {
 public:
  String getUnixUserName() override {
    if (!m_userLooked && hasUnixInfo()) {
      m_userLooked = true;
      setUnixUserName(fs_platform::getUserName(getUnixUserID()));
    }
    return CFileInfoBase::getUnixUserName();
  }
  String getUnixGroupName() override {
    if (!m_groupLooked && hasUnixInfo()) {
      m_groupLooked = true;
      setUnixGroupName(fs_platform::getGroupName(getUnixGroupID()));
    }
    return CFileInfoBase::getUnixGroupName();
  }

 private:
  bool m_userLooked = false;
  bool m_groupLooked = false;
};

IFileInfoBase::Type toType(EntryType type) {
  switch (type) {
    case EntryType::File:
      return IFileInfoBase::TypeFile;
    case EntryType::Folder:
      return IFileInfoBase::TypeFolder;
    case EntryType::Other:
      return IFileInfoBase::TypeOther;
  }
  return IFileInfoBase::TypeUnknown;
}

class CFolderContentsIterator : public CBase, public IFolderContentsIterator {
 public:
  CFolderContentsIterator(const CURI& uri, const String& path, fs_platform::Folder folder)
      : m_uri(uri), m_path(path), m_folder(folder) {}
  ~CFolderContentsIterator() override { fs_platform::closeFolder(m_folder); }

  bool nextItem() override {
    m_onItem = false;
    if (m_folder == nullptr) return false;
    String name;
    bool more = guarded("CFolderContentsIterator::nextItem", m_uri,
                        [&] { return fs_platform::readFolderEntry(m_folder, name); });
    if (!more) {
      // Release the descriptor as soon as the listing is done.
      fs_platform::closeFolder(m_folder);
      m_folder = nullptr;
      return false;
    }
    m_name = name;
    m_onItem = true;
    return true;
  }

  String getItemName() override {
    if (!m_onItem) {
      throw CBadStateError(
          "CFileSystem::CFolderContentsIterator::getItemName called but iterator is not on an item.");
    }
    return m_name;
  }

  P<IFileInfoBase> getItemInfo() override {
    if (!m_onItem) {
      throw CBadStateError(
          "CFileSystem::CFolderContentsIterator::getItemInfo called but iterator is not on an item.");
    }
    CURI itemURI = m_uri.append(m_name);
    return CFileSystem::makeFileInfo(CNativePath(m_path).append(m_name).toString(), false, itemURI,
                                     "CFolderContentsIterator::getItemInfo");
  }

 private:
  CURI m_uri;
  String m_path;
  fs_platform::Folder m_folder;
  String m_name;
  bool m_onItem = false;
};

class CMetaModifier : public CBase, public IFileMetaModifier {
 public:
  CMetaModifier(const CURI& uri, const String& path, bool followSymLinks)
      : m_uri(uri), m_path(path), m_follow(followSymLinks) {}

  void applyCachedChanges() override {
    if (!m_changes.any()) return;
    guarded("CFileMetaModifier::applyCachedChanges", m_uri,
            [&] { fs_platform::applyMetaChanges(m_path, m_follow, m_changes); });
    m_changes = fs_platform::MetaChanges();
  }
  void setCreatedTime(const CTime& time) override {
    m_changes.setCreatedTime = true;
    m_changes.createdTime = time;
  }
  void setDataModifiedTime(const CTime& time) override {
    m_changes.setDataModifiedTime = true;
    m_changes.dataModifiedTime = time;
  }
  void setIndexable(bool indexable) override {
    m_changes.setIndexable = true;
    m_changes.indexable = indexable;
  }
  void setHidden(bool hidden) override {
    m_changes.setHidden = true;
    m_changes.hidden = hidden;
  }
  void setReadOnly(bool readOnly) override {
    m_changes.setReadOnly = true;
    m_changes.readOnly = readOnly;
  }
  void setWindowsAttributes(uint64 attributes) override {
    m_changes.setWindowsAttributes = true;
    m_changes.windowsAttributes = attributes;
  }
  void setUnixMode(uint64 mode) override {
    m_changes.setUnixMode = true;
    m_changes.unixMode = mode;
  }

 private:
  CURI m_uri;
  String m_path;
  bool m_follow;
  fs_platform::MetaChanges m_changes;
};

void checkName(const String& name, const char* function) {
  std::wstring text = name.toStdWString();
  if (text.empty() || text == L"." || text == L".." ||
      text.find_first_of(L"/\\") != std::wstring::npos || text.find(L'\0') != std::wstring::npos) {
    throw CInvalidArgError(actionName(function), "the name must be one non-empty path component");
  }
}

}  // namespace

CFileSystem::CFileSystem() = default;

CFileSystem::~CFileSystem() {
  try {
    dispose();
  } catch (...) {
    // A destructor cannot report; dispose() is the place to see stop errors.
  }
}

void CFileSystem::dispose() {
  P<CBackgroundOpThread> thread;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    thread = m_backgroundThread;
    m_backgroundThread = nullptr;
  }
  if (thread) thread->stop(false);
}

P<CBackgroundOpThread> CFileSystem::getBackgroundThread() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_backgroundThread) {
    m_backgroundThread = createObject<CBackgroundOpThread>();
    m_backgroundThread->setThreadName("zel.fileSystem.background");
    m_backgroundThread->start();
  }
  return m_backgroundThread;
}

void CFileSystem::setLoginManager(IFileSystemLoginManager* loginManager) {
  // Local access runs under the process's account; the manager is only kept.
  std::lock_guard<std::mutex> lock(m_mutex);
  m_loginManager = loginManager;
}

P<IBackgroundOp> CFileSystem::backgroundStore(const CURI& uri, int64 length, IInStream* source,
                                              bool overwrite, IDoneListener* listener) {
  try {
    toPath(uri);  // a foreign URI fails here, not on the worker
    if (length < 0) throw CInvalidArgError(actionName("backgroundStore"), "length must be >= 0");
    if (source == nullptr) throw CInvalidArgError(actionName("backgroundStore"), "source is null");
  } catch (const CError& e) {
    return createObject<CErrorBackgroundOp>(e, listener);
  }
  return getBackgroundThread()->addStoreJob(this, uri, length, source, overwrite, listener);
}

P<IBackgroundOp> CFileSystem::backgroundCreateFolder(const CURI& uri, int flags,
                                                     IDoneListener* listener) {
  try {
    toPath(uri);
    checkCreateFolderFlags(flags, actionName("backgroundCreateFolder"));
  } catch (const CError& e) {
    return createObject<CErrorBackgroundOp>(e, listener);
  }
  return getBackgroundThread()->addCreateFolderJob(this, uri, flags, listener);
}

P<IBackgroundOp> CFileSystem::backgroundMoveFileOrFolder(const CURI& from, const CURI& to,
                                                         bool overwrite, IDoneListener* listener) {
  try {
    toPath(from);
    toPath(to);
  } catch (const CError& e) {
    return createObject<CErrorBackgroundOp>(e, listener);
  }
  return getBackgroundThread()->addMoveFileJob(this, from, to, overwrite, listener);
}

P<IBackgroundOp> CFileSystem::backgroundDeleteFile(const CURI& uri, IDoneListener* listener) {
  try {
    toPath(uri);
  } catch (const CError& e) {
    return createObject<CErrorBackgroundOp>(e, listener);
  }
  return getBackgroundThread()->addDeleteFileJob(this, uri, listener);
}

P<IFileInfoBase> CFileSystem::makeFileInfo(const String& path, bool followSymLinks, const CURI& uri,
                                           const char* action) {
  return guarded(action, uri, [&]() -> P<IFileInfoBase> {
    EntryInfo info;
    if (!fs_platform::statEntry(path, followSymLinks, info)) throwNotFound(action, uri);
    auto result = createObject<CLocalFileInfo>();
    IFileInfoBase::Type type = toType(info.type);
    if (info.isSymLink) {
      // The link's kind is its target's; a dangling link has none.
      EntryInfo target;
      bool hasTarget = followSymLinks || fs_platform::statEntry(path, true, target);
      EntryType targetType = followSymLinks ? info.type : target.type;
      if (!hasTarget) {
        result->setSymLinkType(IFileInfoBase::SymLinkUnknownTarget);
        if (!followSymLinks) type = IFileInfoBase::TypeUnknown;
      } else {
        result->setSymLinkType(targetType == EntryType::Folder ? IFileInfoBase::SymLinkFolder
                                                               : IFileInfoBase::SymLinkFile);
        if (!followSymLinks) type = toType(targetType);
      }
#ifdef _WIN32
      result->setSymLinkFlavor(info.isJunction ? IFileInfoBase::SymLinkFlavorWindowsJunction
                                               : IFileInfoBase::SymLinkFlavorWindowsSymLink);
#else
      result->setSymLinkFlavor(IFileInfoBase::SymLinkFlavorUnix);
#endif
      result->setSymLinkTargetPath(info.symLinkTarget);
    } else {
      result->setSymLinkType(IFileInfoBase::SymLinkNone);
      result->setSymLinkFlavor(IFileInfoBase::SymLinkFlavorNone);
      result->setSymLinkTargetPath(String());
    }
    result->setType(type);
    result->setSize(info.size);
    if (info.createdTime.isValid()) result->setCreatedTime(info.createdTime);
    if (info.dataModifiedTime.isValid()) result->setDataModifiedTime(info.dataModifiedTime);
    if (info.metaModifiedTime.isValid()) result->setMetaModifiedTime(info.metaModifiedTime);
    if (info.id >= 0) result->setID(info.id);
    if (info.volumeID >= 0) result->setTemporaryVolumeID(info.volumeID);
    result->setHardLinked(info.linkCount > 1 && info.type != EntryType::Folder);
    result->setReadOnly(info.readOnly);
    result->setHidden(info.hidden);
    result->setEncrypted(info.encrypted);
    result->setCompressed(info.compressed);
    result->setSparse(info.sparse);
    result->setIndexable(info.indexable);
    result->setHasWindowsInfo(info.hasWindowsInfo);
    if (info.hasWindowsInfo) result->setWindowsAttributes(info.windowsAttributes);
    result->setHasUnixInfo(info.hasUnixInfo);
    if (info.hasUnixInfo) {
      result->setUnixMode(info.unixMode);
      result->setUnixUserID(info.unixUserID);
      result->setUnixGroupID(info.unixGroupID);
    }
    return result;
  });
}

P<IFileInfoBase> CFileSystem::getFileInfo(const CURI& uri, bool followSymLinks) {
  String path = guarded("getFileInfo", uri, [&] { return toPath(uri); });
  return makeFileInfo(path, followSymLinks, uri, "getFileInfo");
}

P<IFileMetaModifier> CFileSystem::createMetaModifier(const CURI& uri, bool followSymLinks) {
  String path = guarded("createMetaModifier", uri, [&] { return toPath(uri); });
  return createObject<CMetaModifier>(uri, path, followSymLinks);
}

int64 CFileSystem::getFileSectorSize(const CURI& uri) {
  return guarded("getFileSectorSize", uri, [&] { return fs_platform::getSectorSize(toPath(uri)); });
}

P<IFolderContentsIterator> CFileSystem::getFolderContents(const CURI& uri) {
  return guarded("getFolderContents", uri, [&]() -> P<IFolderContentsIterator> {
    String path = toPath(uri);
    fs_platform::Folder folder = fs_platform::openFolder(path);
    try {
      return createObject<CFolderContentsIterator>(uri, path, folder);
    } catch (...) {
      fs_platform::closeFolder(folder);
      throw;
    }
  });
}

P<IIOStream> CFileSystem::createStream(const CURI& uri, IIOStream::Access access,
                                       TFlags<IIOStream::Flags> flags) {
  // Refused combinations fail before anything is touched.
  OpenDisposition disposition = getOpenDisposition(access, flags);
  return guarded("createStream", uri, [&]() -> P<IIOStream> {
    String path = toPath(uri);
    bool writable = isWriteAccess(access);
    fs_platform::Handle handle = fs_platform::openFile(path, toPlatform(disposition), writable,
                                                       flags.has(IIOStream::FlagExclusive));
    return createObject<CFileStream>(handle, uri, writable);
  });
}

P<IIOStream> CFileSystem::createSubDataStream(const CURI& uri, const String& name,
                                              IIOStream::Access access,
                                              TFlags<IIOStream::Flags> flags) {
  OpenDisposition disposition = getOpenDisposition(access, flags);
  std::wstring text = name.toStdWString();
  if (text.empty() || text.find_first_of(L"/\\:") != std::wstring::npos ||
      text.find(L'\0') != std::wstring::npos) {
    throw CInvalidArgError(actionName("createSubDataStream"),
                           "the name must be non-empty and hold no '/', '\\' or ':'");
  }
  return guarded("createSubDataStream", uri, [&] {
    return fs_platform::openSubDataStream(uri, toPath(uri), name, toPlatform(disposition),
                                          isWriteAccess(access), flags.has(IIOStream::FlagExclusive));
  });
}

void CFileSystem::createFolderImpl(const CURI& uri, int flags, const char* action) {
  String path = toPath(uri);
  if ((flags & CreateFolderParents) != 0 && uri.hasParent()) {
    CURI parent = uri.getParent();
    String parentPath = toPath(parent);
    EntryInfo info;
    if (parentPath != path && !fs_platform::statEntry(parentPath, true, info)) {
      try {
        createFolderImpl(parent, CreateFolderParents, action);
      } catch (const CError& e) {
        // Someone else may have made it meanwhile.
        if (!isFileOrFolderAlreadyExistsError(e)) throw;
      }
    }
  }
  fs_platform::createFolder(path);
  if ((flags & CreateFolderHidden) != 0) {
    fs_platform::MetaChanges changes;
    changes.setHidden = true;
    changes.hidden = true;
    fs_platform::applyMetaChanges(path, false, changes);
  }
}

void CFileSystem::createFolder(const CURI& uri, int flags) {
  checkCreateFolderFlags(flags, actionName("createFolder"));
  guarded("createFolder", uri, [&] { createFolderImpl(uri, flags, "createFolder"); });
}

bool CFileSystem::ensureFolderExists(const CURI& uri, int flags) {
  checkCreateFolderFlags(flags, actionName("ensureFolderExists"));
  return guarded("ensureFolderExists", uri, [&] {
    String path = toPath(uri);
    EntryInfo info;
    if (fs_platform::statEntry(path, true, info)) {
      if (info.type == EntryType::Folder) return false;
      throwProblem(CFileSystemError::ProblemWrongType, "A file is in the way of the folder.",
                   "ensureFolderExists", uri);
    }
    try {
      createFolderImpl(uri, flags, "ensureFolderExists");
    } catch (const CError& e) {
      // Lost a race with another creator: fine when a folder is there now.
      if (isFileOrFolderAlreadyExistsError(e) && fs_platform::statEntry(path, true, info) &&
          info.type == EntryType::Folder) {
        return false;
      }
      throw;
    }
    return true;
  });
}

void CFileSystem::ensureFileExists(const CURI& uri) {
  guarded("ensureFileExists", uri, [&] {
    fs_platform::Handle handle =
        fs_platform::openFile(toPath(uri), fs_platform::Disposition::OpenAlways, false, false);
    fs_platform::closeFile(handle);
  });
}

void CFileSystem::createFileHardLink(const CURI& link, const CURI& target) {
  guarded2("createFileHardLink", link, target,
           [&] { fs_platform::createHardLink(toPath(link), toPath(target)); });
}

void CFileSystem::createFolderHardLink(const CURI& link, const CURI& target) {
  guarded2("createFolderHardLink", link, target,
           [&] { fs_platform::createFolderHardLink(toPath(link), toPath(target)); });
}

void CFileSystem::createFileSymLink(const CURI& link, const CURI& target) {
  guarded2("createFileSymLink", link, target,
           [&] { fs_platform::createSymLink(toPath(link), toPath(target), false); });
}

void CFileSystem::createFolderSymLink(const CURI& link, const CURI& target) {
  guarded2("createFolderSymLink", link, target,
           [&] { fs_platform::createSymLink(toPath(link), toPath(target), true); });
}

bool CFileSystem::fileExists(const CURI& uri) {
  return guarded("fileExists", uri, [&] {
    EntryType type;
    return fs_platform::getEntryType(toPath(uri), type) && type != EntryType::Folder;
  });
}

bool CFileSystem::folderExists(const CURI& uri) {
  return guarded("folderExists", uri, [&] {
    EntryType type;
    return fs_platform::getEntryType(toPath(uri), type) && type == EntryType::Folder;
  });
}

bool CFileSystem::pathExists(const CURI& uri) {
  return guarded("pathExists", uri, [&] {
    EntryType type;
    return fs_platform::getEntryType(toPath(uri), type);
  });
}

bool CFileSystem::quickCheckFolderAccessible(const CURI& uri) {
  String path = guarded("quickCheckFolderAccessible", uri, [&] { return toPath(uri); });
  try {
    EntryInfo info;
    return fs_platform::statEntry(path, true, info) && info.type == EntryType::Folder;
  } catch (const CError&) {
    return false;  // unreachable for whatever reason
  }
}

bool CFileSystem::isFolderEmpty(const CURI& uri) {
  return guarded("isFolderEmpty", uri, [&] {
    fs_platform::Folder folder = fs_platform::openFolder(toPath(uri));
    bool empty;
    try {
      String name;
      empty = !fs_platform::readFolderEntry(folder, name);
    } catch (...) {
      fs_platform::closeFolder(folder);
      throw;
    }
    fs_platform::closeFolder(folder);
    return empty;
  });
}

void CFileSystem::deleteFile(const CURI& uri, bool force) {
  guarded("deleteFile", uri, [&] {
    String path = toPath(uri);
    EntryInfo info;
    if (!fs_platform::statEntry(path, false, info)) throwNotFound("deleteFile", uri);
    if (isRealFolder(info)) {
      throwProblem(CFileSystemError::ProblemWrongType, "A folder cannot be deleted as a file.",
                   "deleteFile", uri);
    }
    if (info.readOnly && !info.isSymLink) {
      if (!force) {
        throwProblem(CFileSystemError::ProblemAccessDenied, "The file is read-only.", "deleteFile", uri);
      }
      // Windows refuses to delete a read-only file.
      fs_platform::MetaChanges changes;
      changes.setReadOnly = true;
      changes.readOnly = false;
      fs_platform::applyMetaChanges(path, false, changes);
    }
    fs_platform::removeFile(path);
  });
}

void CFileSystem::deleteSymLink(const CURI& uri) {
  guarded("deleteSymLink", uri, [&] {
    String path = toPath(uri);
    EntryInfo info;
    if (!fs_platform::statEntry(path, false, info)) throwNotFound("deleteSymLink", uri);
    if (!info.isSymLink) {
      throwProblem(CFileSystemError::ProblemWrongType, "The entry is no symbolic link.", "deleteSymLink",
                   uri);
    }
    fs_platform::removeLink(path);
  });
}

void CFileSystem::deleteEmptyFolder(const CURI& uri, bool force) {
  guarded("deleteEmptyFolder", uri, [&] {
    String path = toPath(uri);
    EntryInfo info;
    if (!fs_platform::statEntry(path, false, info)) throwNotFound("deleteEmptyFolder", uri);
    if (!isRealFolder(info)) {
      throwProblem(CFileSystemError::ProblemWrongType, "The entry is no folder.", "deleteEmptyFolder", uri);
    }
#ifdef _WIN32
    // A folder's read-only mark does not protect it on Linux (the mode's
    // write bit guards its entries instead), so only Windows refuses.
    if (info.readOnly) {
      if (!force) {
        throwProblem(CFileSystemError::ProblemAccessDenied, "The folder is read-only.",
                     "deleteEmptyFolder", uri);
      }
      fs_platform::MetaChanges changes;
      changes.setReadOnly = true;
      changes.readOnly = false;
      fs_platform::applyMetaChanges(path, false, changes);
    }
#else
    (void)force;
#endif
    fs_platform::removeFolder(path);
  });
}

void CFileSystem::unlinkFolder(const CURI& uri) {
  guarded("unlinkFolder", uri, [&] {
    String path = toPath(uri);
    EntryInfo info;
    if (!fs_platform::statEntry(path, false, info)) throwNotFound("unlinkFolder", uri);
    if (!info.isSymLink && !info.isJunction) {
      throwProblem(CFileSystemError::ProblemWrongType, "The entry is no folder link.", "unlinkFolder", uri);
    }
    fs_platform::removeLink(path);
  });
}

CURI CFileSystem::getVolumeRootPath(const CURI& uri) {
  return guarded("getVolumeRootPath", uri, [&] {
    return CURI::fromNativePath(CNativePath(fs_platform::getVolumeRoot(toPath(uri))));
  });
}

CURI CFileSystem::createUniqueName(const CURI& folder, const String& name, bool splitExtension,
                                   const char* action) {
  checkName(name, action);
  return guarded(action, folder, [&] {
    std::wstring text = name.toStdWString();
    std::wstring base = text;
    std::wstring extension;
    if (splitExtension) {
      size_t dot = text.find_last_of(L'.');
      if (dot != std::wstring::npos && dot > 0) {
        base = text.substr(0, dot);
        extension = text.substr(dot);
      }
    }
    String folderPath = toPath(folder);
    for (int i = 1; i <= 10000; ++i) {
      std::wstring candidate =
          i == 1 ? text : base + L" (" + std::to_wstring(i) + L")" + extension;
      String candidateName(candidate);
      EntryInfo info;
      if (!fs_platform::statEntry(CNativePath(folderPath).append(candidateName).toString(), false, info)) {
        return folder.append(candidateName);
      }
    }
    CProps params;
    params.set("action", actionName(action));
    params.set(CIOError::paramURI(), folder.toString());
    params.set("name", name);
    throw CIOError(CIOError::Unknown, "No unused name was found in the folder.", params);
  });
}

CURI CFileSystem::createUniqueFilename(const CURI& folder, const String& name) {
  return createUniqueName(folder, name, true, "createUniqueFilename");
}

CURI CFileSystem::createUniqueFolderName(const CURI& folder, const String& name) {
  return createUniqueName(folder, name, false, "createUniqueFolderName");
}

void CFileSystem::moveFileOrFolder(const CURI& from, const CURI& to, bool overwrite) {
  guarded2("moveFileOrFolder", from, to, [&] {
    String fromPath = toPath(from);
    String toPathText = toPath(to);
    EntryInfo info;
    if (fs_platform::statEntry(toPathText, false, info)) {
      if (!overwrite || isRealFolder(info)) {
        throwProblem(CFileSystemError::ProblemAlreadyExists, "The target exists already.",
                     "moveFileOrFolder", to);
      }
    }
    fs_platform::renameEntry(fromPath, toPathText, overwrite);
  });
}

void CFileSystem::copyFile(const CURI& from, const CURI& to, bool overwrite) {
  guarded2("copyFile", from, to, [&] {
    String fromPath = toPath(from);
    String toPathText = toPath(to);
    EntryInfo info;
    if (fs_platform::statEntry(toPathText, true, info) && info.type == EntryType::Folder) {
      throwProblem(CFileSystemError::ProblemAlreadyExists, "A folder is at the target.", "copyFile", to);
    }
    // Copying a file onto itself (or onto another of its names) would empty
    // it before reading.
    EntryInfo source;
    if (fs_platform::statEntry(toPathText, true, info) && fs_platform::statEntry(fromPath, true, source) &&
        info.id >= 0 && info.id == source.id && info.volumeID == source.volumeID) {
      throwProblem(CFileSystemError::ProblemAlreadyExists, "Source and target are the same file.",
                   "copyFile", to);
    }
    fs_platform::copyFile(fromPath, toPathText, overwrite);
  });
}

int64 CFileSystem::getFreeSpaceInFolder(const CURI& uri) {
  return guarded("getFreeSpaceInFolder", uri, [&] { return fs_platform::getFreeSpace(toPath(uri)); });
}

String CFileSystem::getAccountOrUserNameUsedForAccess(const CURI& uri) {
  return guarded("getAccountOrUserNameUsedForAccess", uri, [&] {
    toPath(uri);
    return fs_platform::getCurrentUserName();
  });
}

P<IFileSystem::CNativeMetaData> CFileSystem::getNativeMetaData(const CURI& uri, bool followSymLinks,
                                                               const String& which) {
  if (!which.isEmpty()) {
    throw CInvalidArgError(actionName("getNativeMetaData"), String("unknown metadata part: ") + which);
  }
  return guarded("getNativeMetaData", uri, [&] {
    std::vector<unsigned char> block = fs_platform::readNativeMetaData(toPath(uri), followSymLinks);
    return createObject<CNativeMetaData>(block.data(), block.size());
  });
}

}  // namespace zel
