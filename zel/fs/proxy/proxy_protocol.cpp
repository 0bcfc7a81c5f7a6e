#include "zel/fs/proxy/proxy_protocol.h"

#include "zel/core/error.h"

namespace zel {

namespace {

const char* const kFuncNames[] = {
    "createFolder", "ensureFolderExists", "ensureFileExists", "createFileHardLink",
    "createFolderHardLink", "createFileSymLink", "createFolderSymLink", "fileExists",
    "folderExists", "pathExists", "isFolderEmpty", "deleteFile", "deleteSymLink",
    "deleteEmptyFolder", "unlinkFolder", "getVolumeRootPath", "createUniqueFilename",
    "createUniqueFolderName", "moveFile", "copyFile", "getFreeSpaceInFolder", "streamOpen",
    "subDataStreamOpen", "streamGetLength", "streamGetPosition", "streamSeek", "streamClose",
    "streamReadLax", "streamReadAvailable", "streamWaitReadable", "streamIsEnd",
    "streamIsEnd_NonBlocking", "streamWrite", "streamFlush", "fileInfoOpen", "fileInfoGet",
    "fileInfoClose", "getFolderContents", "getNativeMetaData", "streamCreateWriteBarrier",
    "streamSetLength", "writeBarrierRelease", nullptr, nullptr, "backgroundStoreBegin",
    "backgroundCreateFolderBegin", "backgroundMoveFileBegin", "backgroundDeleteFileBegin",
    "backgroundOpsFinalize", "streamLockRange", "lockRelease", "getFileSectorSize",
    "metaModifierOpen", "metaModifierApplyCachedChanges", "metaModifierSetCreatedTime",
    "metaModifierSetDataModifiedTime", "metaModifierSetIndexable", "metaModifierSetHidden",
    "metaModifierSetReadOnly", "metaModifierSetWindowsAttributes", "metaModifierSetUnixMode",
    "metaModifierClose", "getAccountOrUserNameUsedForAccess", "quickCheckFolderAccessible",
};
static_assert(std::size(kFuncNames) == CProxyFileSystemBase::FuncQuickCheckFolderAccessible + 1);

using Info = IFileInfoBase;

}  // namespace

String CProxyFileSystemBase::getFuncName(int funcID) {
  if (funcID < 0 || funcID >= static_cast<int>(std::size(kFuncNames)) || !kFuncNames[funcID]) {
    return String();
  }
  return String(kFuncNames[funcID]);
}

void CProxyFileSystemBase::writeInfoItem(CDataOutStream& out, IFileInfoBase& info, uint64 flag) {
  switch (flag) {
    case Info::CachedType: out.writeInt32(info.getType()); break;
    case Info::CachedSize: out.writeInt64(info.getSize()); break;
    case Info::CachedSymLinkType: out.writeInt32(info.getSymLinkType()); break;
    case Info::CachedSymLinkFlavor: out.writeInt32(info.getSymLinkFlavor()); break;
    case Info::CachedSymLinkTargetPath: out.writeString(info.getSymLinkTargetPath()); break;
    case Info::CachedCreatedTime: out.writeInt64(info.getCreatedTime().getMicroseconds()); break;
    case Info::CachedDataModifiedTime: out.writeInt64(info.getDataModifiedTime().getMicroseconds()); break;
    case Info::CachedMetaModifiedTime: out.writeInt64(info.getMetaModifiedTime().getMicroseconds()); break;
    case Info::CachedID: out.writeInt64(info.tryGetID()); break;
    case Info::CachedTemporaryVolumeID: out.writeInt64(info.tryGetTemporaryVolumeID()); break;
    case Info::CachedHardLinked: out.writeBool(info.isHardLinked()); break;
    case Info::CachedReadOnly: out.writeBool(info.isReadOnly()); break;
    case Info::CachedHidden: out.writeBool(info.isHidden()); break;
    case Info::CachedEncrypted: out.writeBool(info.isEncrypted()); break;
    case Info::CachedCompressed: out.writeBool(info.isCompressed()); break;
    case Info::CachedSparse: out.writeBool(info.isSparse()); break;
    case Info::CachedIndexable: out.writeBool(info.isIndexable()); break;
    case kInfoHasWindowsInfo: out.writeBool(info.hasWindowsInfo()); break;
    case Info::CachedWindowsSecurityString: out.writeString(info.getWindowsSecurityString()); break;
    case Info::CachedWindowsAttributes: out.writeUInt32(info.getWindowsAttributes()); break;
    case kInfoHasUnixInfo: out.writeBool(info.hasUnixInfo()); break;
    case Info::CachedUnixMode: out.writeInt64(info.getUnixMode()); break;
    case Info::CachedUnixUserID: out.writeInt64(info.getUnixUserID()); break;
    case Info::CachedUnixUserName: out.writeString(info.getUnixUserName()); break;
    case Info::CachedUnixGroupID: out.writeInt64(info.getUnixGroupID()); break;
    case Info::CachedUnixGroupName: out.writeString(info.getUnixGroupName()); break;
    default:
      throw CInvalidArgError("CProxyFileSystemBase::writeInfoItem",
                             "not a single info-item bit: " + String::fromInt64(static_cast<int64>(flag)));
  }
}

void CProxyFileSystemBase::writeInfoItemsByMask(CDataOutStream& out, IFileInfoBase& info,
                                                uint64 mask) {
  mask &= kAllInfoItems;
  out.writeUInt64(mask);
  for (uint64 flag = 1; flag <= mask; flag <<= 1) {
    if (mask & flag) writeInfoItem(out, info, flag);
  }
}

uint64 CProxyFileSystemBase::readInfoItems(CDataInStream& in, CFileInfoBase& info) {
  const uint64 mask = in.readUInt64();
  if (mask & ~kAllInfoItems) {
    throw CIOError(CIOError::InvalidData, "Unknown file information items in proxy message");
  }
  const uint64 cachedBefore = info.getCachedInfoMask();
  for (uint64 flag = 1; flag <= mask; flag <<= 1) {
    if (!(mask & flag)) continue;
    switch (flag) {
      case Info::CachedType: info.setType(static_cast<Info::Type>(in.readInt32())); break;
      case Info::CachedSize: info.setSize(in.readInt64()); break;
      case Info::CachedSymLinkType:
        info.setSymLinkType(static_cast<Info::SymLinkType>(in.readInt32()));
        break;
      case Info::CachedSymLinkFlavor:
        info.setSymLinkFlavor(static_cast<Info::SymLinkFlavor>(in.readInt32()));
        break;
      case Info::CachedSymLinkTargetPath: info.setSymLinkTargetPath(in.readString()); break;
      case Info::CachedCreatedTime: info.setCreatedTime(CTime(in.readInt64())); break;
      case Info::CachedDataModifiedTime: info.setDataModifiedTime(CTime(in.readInt64())); break;
      case Info::CachedMetaModifiedTime: info.setMetaModifiedTime(CTime(in.readInt64())); break;
      case Info::CachedID: info.setID(in.readInt64()); break;
      case Info::CachedTemporaryVolumeID: info.setTemporaryVolumeID(in.readInt64()); break;
      case Info::CachedHardLinked: info.setHardLinked(in.readBool()); break;
      case Info::CachedReadOnly: info.setReadOnly(in.readBool()); break;
      case Info::CachedHidden: info.setHidden(in.readBool()); break;
      case Info::CachedEncrypted: info.setEncrypted(in.readBool()); break;
      case Info::CachedCompressed: info.setCompressed(in.readBool()); break;
      case Info::CachedSparse: info.setSparse(in.readBool()); break;
      case Info::CachedIndexable: info.setIndexable(in.readBool()); break;
      case kInfoHasWindowsInfo: info.setHasWindowsInfo(in.readBool()); break;
      case Info::CachedWindowsSecurityString: info.setWindowsSecurityString(in.readString()); break;
      case Info::CachedWindowsAttributes: info.setWindowsAttributes(in.readUInt32()); break;
      case kInfoHasUnixInfo: info.setHasUnixInfo(in.readBool()); break;
      case Info::CachedUnixMode: info.setUnixMode(in.readInt64()); break;
      case Info::CachedUnixUserID: info.setUnixUserID(in.readInt64()); break;
      case Info::CachedUnixUserName: info.setUnixUserName(in.readString()); break;
      case Info::CachedUnixGroupID: info.setUnixGroupID(in.readInt64()); break;
      case Info::CachedUnixGroupName: info.setUnixGroupName(in.readString()); break;
    }
  }
  // The setters mark their bits; the has*Info flags have no cached bit.
  info.setCachedInfoMask(cachedBefore | (mask & ~(kInfoHasWindowsInfo | kInfoHasUnixInfo)));
  return mask;
}

}  // namespace zel
