#include "zel/fs/file_system.h"

#include "zel/core/error.h"

namespace zel {

CFileInfoBase::~CFileInfoBase() = default;
CFileInfo::~CFileInfo() = default;

void CFileInfoBase::construct(const IFileInfoBase& source) {
  // The non-const getters only read (see IFileInfoBase); other may compute
  // those values lazily, which is why they are not const.
  IFileInfoBase& other = const_cast<IFileInfoBase&>(source);
  m_type = other.getType();
  m_size = other.getSize();
  m_symLinkType = other.getSymLinkType();
  m_symLinkFlavor = other.getSymLinkFlavor();
  m_symLinkTargetPath = other.getSymLinkTargetPath();
  m_createdTime = other.getCreatedTime();
  m_dataModifiedTime = other.getDataModifiedTime();
  m_metaModifiedTime = other.getMetaModifiedTime();
  m_id = other.tryGetID();
  m_temporaryVolumeID = other.tryGetTemporaryVolumeID();
  m_hardLinked = other.isHardLinked();
  m_readOnly = other.isReadOnly();
  m_hidden = other.isHidden();
  m_encrypted = other.isEncrypted();
  m_compressed = other.isCompressed();
  m_sparse = other.isSparse();
  m_indexable = other.isIndexable();
  m_hasWindowsInfo = other.hasWindowsInfo();
  m_windowsSecurityString = other.getWindowsSecurityString();
  m_windowsAttributes = other.getWindowsAttributes();
  m_hasUnixInfo = other.hasUnixInfo();
  m_unixMode = other.getUnixMode();
  m_unixUserID = other.getUnixUserID();
  m_unixUserName = other.getUnixUserName();
  m_unixGroupID = other.getUnixGroupID();
  m_unixGroupName = other.getUnixGroupName();
  m_cachedInfoMask = other.getCachedInfoMask();
}

void CFileInfoBase::setType(Type type) {
  m_type = type;
  markCached(CachedType);
}
void CFileInfoBase::setSize(int64 size) {
  m_size = size;
  markCached(CachedSize);
}
void CFileInfoBase::setSymLinkType(SymLinkType type) {
  m_symLinkType = type;
  markCached(CachedSymLinkType);
}
void CFileInfoBase::setSymLinkFlavor(SymLinkFlavor flavor) {
  m_symLinkFlavor = flavor;
  markCached(CachedSymLinkFlavor);
}
void CFileInfoBase::setSymLinkTargetPath(const String& path) {
  m_symLinkTargetPath = path;
  markCached(CachedSymLinkTargetPath);
}
void CFileInfoBase::setCreatedTime(const CTime& time) {
  m_createdTime = time;
  markCached(CachedCreatedTime);
}
void CFileInfoBase::setDataModifiedTime(const CTime& time) {
  m_dataModifiedTime = time;
  markCached(CachedDataModifiedTime);
}
void CFileInfoBase::setMetaModifiedTime(const CTime& time) {
  m_metaModifiedTime = time;
  markCached(CachedMetaModifiedTime);
}
void CFileInfoBase::setID(int64 id) {
  m_id = id;
  markCached(CachedID);
}
void CFileInfoBase::setTemporaryVolumeID(int64 id) {
  m_temporaryVolumeID = id;
  markCached(CachedTemporaryVolumeID);
}
void CFileInfoBase::setHardLinked(bool value) {
  m_hardLinked = value;
  markCached(CachedHardLinked);
}
void CFileInfoBase::setReadOnly(bool value) {
  m_readOnly = value;
  markCached(CachedReadOnly);
}
void CFileInfoBase::setHidden(bool value) {
  m_hidden = value;
  markCached(CachedHidden);
}
void CFileInfoBase::setEncrypted(bool value) {
  m_encrypted = value;
  markCached(CachedEncrypted);
}
void CFileInfoBase::setCompressed(bool value) {
  m_compressed = value;
  markCached(CachedCompressed);
}
void CFileInfoBase::setSparse(bool value) {
  m_sparse = value;
  markCached(CachedSparse);
}
void CFileInfoBase::setIndexable(bool value) {
  m_indexable = value;
  markCached(CachedIndexable);
}
void CFileInfoBase::setHasWindowsInfo(bool value) { m_hasWindowsInfo = value; }
void CFileInfoBase::setWindowsSecurityString(const String& text) {
  m_windowsSecurityString = text;
  markCached(CachedWindowsSecurityString);
}
void CFileInfoBase::setWindowsAttributes(unsigned int attributes) {
  m_windowsAttributes = attributes;
  markCached(CachedWindowsAttributes);
}
void CFileInfoBase::setHasUnixInfo(bool value) { m_hasUnixInfo = value; }
void CFileInfoBase::setUnixMode(int64 mode) {
  m_unixMode = mode;
  markCached(CachedUnixMode);
}
void CFileInfoBase::setUnixUserID(int64 id) {
  m_unixUserID = id;
  markCached(CachedUnixUserID);
}
void CFileInfoBase::setUnixUserName(const String& name) {
  m_unixUserName = name;
  markCached(CachedUnixUserName);
}
void CFileInfoBase::setUnixGroupID(int64 id) {
  m_unixGroupID = id;
  markCached(CachedUnixGroupID);
}
void CFileInfoBase::setUnixGroupName(const String& name) {
  m_unixGroupName = name;
  markCached(CachedUnixGroupName);
}

void checkCreateFolderFlags(int flags, const String& function) {
  if ((flags & ~IFileSystem::kCreateFolderKnownFlags) != 0) {
    CProps params;
    params.setInt64("flags", flags);
    throw CInvalidArgError(function, "Unknown folder creation flags.", params);
  }
}

}  // namespace zel
