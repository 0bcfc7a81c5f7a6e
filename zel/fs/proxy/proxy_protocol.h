// The cross-process file system's wire protocol: one process (the client,
// CProxyFileSystem) uses an IFileSystem that lives in another process (the
// server, CProxyFileSystemServer) over one IConnection. This header is the
// reference for every byte both sides exchange.
//
// Frames (both directions):
//   Int32  length N of the payload (little-endian, 0 <= N <= the receiver's
//          limit, kDefaultMaxFrameLength unless configured)
//   N      payload bytes
// No magic, version or request ID: requests and responses strictly alternate
// on a connection; a response belongs to the request before it. A receiver
// refuses a negative length or one above its limit before allocating
// anything (CIOError InvalidData); the connection is then unusable.
//
// Request payload:  Int32 funcID (a FuncID), then the function's arguments.
// Response payload: Int32 responseType, then
//   0 ResponseError            the error (storeError, see stored_error.h)
//   1 ResponseResult           the function's results (may be empty)
//   2 ResponseGetLoginInfo     String: the URI that login data is wanted for
//                              (server to client only)
//   3 ResponseUpdateLoginInfo  CURISelector (store), then String: CProps text
//                              (server to client only)
// A callback (2, 3) comes in the middle of a request; the client answers with
// one frame (1 and the results below, or 0 and an error) and then reads the
// next frame, which continues the same request:
//   answer to 2: Int32 1, String props text (CProps::toString), CURISelector.
//                Without a login manager: empty props and the empty selector.
//   answer to 3: Int32 1 and nothing else.
//
// Values use the data-stream encoding (data_stream.h): Int32/Int64 are 4/8
// bytes little-endian, Bool 1 byte, String a 4-byte length and UTF-8 bytes.
// A String may carry bytes that are not UTF-8 (the name of a Linux file that
// is not UTF-8 travels with its raw bytes; see zel/core/utf8.h), so a reader
// in another language must keep them rather than refuse or replace them.
// A URI is a String holding CURI::toString(true). A handle is an Int64; 0 is
// never a handle and stands for "none" where a handle is optional. A time is
// the Int64 value of a CTime (0x7FFFFFFFFFFFFFFF when invalid).
//
// Arguments -> results of each function (results follow the responseType 1):
//   createFolder                 URI, Int32 flags -> nothing
//   ensureFolderExists           URI, Int32 flags -> Bool created
//   ensureFileExists             URI -> nothing
//   createFileHardLink,
//   createFolderHardLink         URI link, URI target -> nothing
//   createFileSymLink,
//   createFolderSymLink          String target (absolute URI text, or a relative
//                                reference passed on unchanged), URI link -> nothing
//   fileExists, folderExists, pathExists, isFolderEmpty,
//   quickCheckFolderAccessible   URI -> Bool
//   deleteFile, deleteEmptyFolder URI, Bool force -> nothing
//   deleteSymLink, unlinkFolder  URI -> nothing
//   getVolumeRootPath            URI -> URI
//   createUniqueFilename,
//   createUniqueFolderName       URI folder, String name -> URI
//   moveFile, copyFile           URI from, URI to, Bool overwrite -> nothing
//   getFreeSpaceInFolder,
//   getFileSectorSize            URI -> Int64
//   getAccountOrUserNameUsedForAccess URI -> String
//   streamOpen                   URI, Int32 access, Int32 flags -> Int64 stream
//   subDataStreamOpen            URI, String name, Int32 access, Int32 flags
//                                -> Int64 stream
//   streamGetLength,
//   streamGetPosition            Int64 stream -> Int64
//   streamSeek, streamSetLength  Int64 stream, Int64 value (a length below 0
//                                is refused) -> nothing
//   streamIsEnd                  Int64 stream -> Bool
//   streamIsEnd_NonBlocking      Int64 stream -> Int32: 1 at the end, 0 not at
//                                the end or not known without waiting
//   streamWaitReadable           Int64 stream, Int32 timeout ms -> Bool
//   streamReadLax,
//   streamReadAvailable          Int64 stream, Int32 wanted (0 to
//                                kMaxDataChunk; below 0 is refused)
//                                -> Int32 count (0 to wanted), count raw bytes
//   streamWrite                  Int64 stream, Int64 write barrier or 0,
//                                Int32 count (0 to kMaxDataChunk), count raw
//                                bytes -> nothing
//   streamFlush, streamClose     Int64 stream -> nothing
//   streamCreateWriteBarrier     Int64 stream, Int64 parent barrier or 0 (looked
//                                up before the stream) -> Int64 barrier
//   streamLockRange              Int64 stream, Int64 start, Int64 bytes (both
//                                0 or more), Int32 IStreamBase::LockType
//                                -> Int64 lock
//   writeBarrierRelease, lockRelease, fileInfoClose,
//   metaModifierClose            Int64 handle -> nothing
//   fileInfoOpen                 URI, Bool followSymLinks
//                                -> Int64 file info, info items (the cached ones)
//   fileInfoGet                  Int64 file info -> info items (all of them)
//   getFolderContents            URI -> entries, then an empty String; an
//                                entry is String name (never empty), Int32
//                                its IFileInfoBase::Type, info items (the
//                                cached ones)
//   getNativeMetaData            URI, Bool followSymLinks, String which
//                                -> String format ("BackupRead" on Windows,
//                                "xattr" on Linux), Bool present (false: the
//                                entry has no native metadata), Int32 count,
//                                count raw bytes
//   metaModifierOpen             URI, Bool followSymLinks -> Int64 modifier
//   metaModifierApplyCachedChanges Int64 modifier -> nothing
//   metaModifierSetCreatedTime,
//   metaModifierSetDataModifiedTime Int64 modifier, Int64 time -> nothing
//   metaModifierSetHidden, metaModifierSetIndexable,
//   metaModifierSetReadOnly      Int64 modifier, Bool -> nothing
//   metaModifierSetWindowsAttributes,
//   metaModifierSetUnixMode      Int64 modifier, UInt64 value -> nothing
//   backgroundStoreBegin         URI, Int64 length (0 to kMaxDataChunk), Bool
//                                overwrite, then the data itself: length raw
//                                bytes -> Int64 background op
//   backgroundCreateFolderBegin  URI, Int32 flags -> Int64 background op
//   backgroundDeleteFileBegin    URI -> Int64 background op
//   backgroundMoveFileBegin      URI from, URI to, Bool overwrite
//                                -> Int64 background op
//   backgroundOpsFinalize        Int64 handles..., Int64 -1 -> for each listed
//                                operation that has finished: Int64 handle,
//                                Bool failed, the error (storeError) when
//                                failed; then Int64 -1. Finished operations
//                                are reported once and then forgotten; as
//                                many as fit in one frame are reported, the
//                                rest in later answers.
//
// Info items (the values of an IFileInfoBase):
//   UInt64 mask, then one value per set bit, in ascending bit order. Bit n-1
//   stands for operation n of IFileInfoBase (its CachedInfo bits), and the two
//   bits that the cached-info mask leaves free carry the has*Info flags:
//     0 Type Int32            9 TemporaryVolumeID Int64  18 WindowsSecurityString String
//     1 Size Int64           10 HardLinked Bool          19 WindowsAttributes UInt32
//     2 SymLinkType Int32    11 ReadOnly Bool            20 HasUnixInfo Bool
//     3 SymLinkFlavor Int32  12 Hidden Bool              21 UnixMode Int64
//     4 SymLinkTargetPath    13 Encrypted Bool           22 UnixUserID Int64
//       String               14 Compressed Bool          23 UnixUserName String
//     5 CreatedTime Int64    15 Sparse Bool              24 UnixGroupID Int64
//     6 DataModifiedTime     16 Indexable Bool           25 UnixGroupName String
//     7 MetaModifiedTime     17 HasWindowsInfo Bool
//     8 ID Int64
//   Bits 26 to 63 must be 0 (a reader refuses them: CIOError InvalidData).
//   The receiver's cached-info mask is the mask without bits 17 and 20.
//
// Bulk data (the raw bytes of reads, writes and stores) is the tail of its
// message, so a receiver may read it straight into its destination and a
// sender may send it from its own buffer; the client reads the results of
// streamReadLax and streamReadAvailable that way.
#pragma once

#include "zel/core/export.h"
#include "zel/core/string.h"
#include "zel/core/types.h"
#include "zel/fs/file_system.h"
#include "zel/stream/data_stream.h"

namespace zel {

// Not exported as a whole: its constants are inline in every module (an
// exported class's static data would be imported from the DLL on Windows).
class CProxyFileSystemBase {
 public:
  enum FuncID {
    FuncCreateFolder = 0,
    FuncEnsureFolderExists = 1,
    FuncEnsureFileExists = 2,
    FuncCreateFileHardLink = 3,
    FuncCreateFolderHardLink = 4,
    FuncCreateFileSymLink = 5,
    FuncCreateFolderSymLink = 6,
    FuncFileExists = 7,
    FuncFolderExists = 8,
    FuncPathExists = 9,
    FuncIsFolderEmpty = 10,
    FuncDeleteFile = 11,
    FuncDeleteSymLink = 12,
    FuncDeleteEmptyFolder = 13,
    FuncUnlinkFolder = 14,
    FuncGetVolumeRootPath = 15,
    FuncCreateUniqueFilename = 16,
    FuncCreateUniqueFolderName = 17,
    FuncMoveFile = 18,
    FuncCopyFile = 19,
    FuncGetFreeSpaceInFolder = 20,
    FuncStreamOpen = 21,
    FuncSubDataStreamOpen = 22,
    FuncStreamGetLength = 23,
    FuncStreamGetPosition = 24,
    FuncStreamSeek = 25,
    FuncStreamClose = 26,
    FuncStreamReadLax = 27,
    FuncStreamReadAvailable = 28,
    FuncStreamWaitReadable = 29,
    FuncStreamIsEnd = 30,
    FuncStreamIsEnd_NonBlocking = 31,
    FuncStreamWrite = 32,
    FuncStreamFlush = 33,
    FuncFileInfoOpen = 34,
    FuncFileInfoGet = 35,
    FuncFileInfoClose = 36,
    FuncGetFolderContents = 37,
    FuncGetNativeMetaData = 38,
    FuncStreamCreateWriteBarrier = 39,
    FuncStreamSetLength = 40,
    FuncWriteBarrierRelease = 41,
    // 42 and 43 are unassigned: answered as unknown functions.
    FuncBackgroundStoreBegin = 44,
    FuncBackgroundCreateFolderBegin = 45,
    FuncBackgroundMoveFileBegin = 46,
    FuncBackgroundDeleteFileBegin = 47,
    FuncBackgroundOpsFinalize = 48,
    FuncStreamLockRange = 49,
    FuncLockRelease = 50,
    FuncGetFileSectorSize = 51,
    FuncMetaModifierOpen = 52,
    FuncMetaModifierApplyCachedChanges = 53,
    FuncMetaModifierSetCreatedTime = 54,
    FuncMetaModifierSetDataModifiedTime = 55,
    FuncMetaModifierSetIndexable = 56,
    FuncMetaModifierSetHidden = 57,
    FuncMetaModifierSetReadOnly = 58,
    FuncMetaModifierSetWindowsAttributes = 59,
    FuncMetaModifierSetUnixMode = 60,
    FuncMetaModifierClose = 61,
    FuncGetAccountOrUserNameUsedForAccess = 62,
    FuncQuickCheckFolderAccessible = 63,
  };

  enum ResponseType {
    ResponseError = 0,
    ResponseResult = 1,
    ResponseGetLoginInfo = 2,
    ResponseUpdateLoginInfo = 3,
  };

  // The largest frame a receiver accepts unless configured otherwise.
  static constexpr int kDefaultMaxFrameLength = 64 * 1024 * 1024;
  // The most bulk bytes one read, write or store request carries; larger
  // transfers are split by the client.
  static constexpr int kMaxDataChunk = 16 * 1024 * 1024;
  // Ends the handle lists of backgroundOpsFinalize.
  static constexpr int64 kHandleListEnd = -1;

  // Info-item bits beyond the CachedInfo ones (see above).
  static constexpr uint64 kInfoHasWindowsInfo = uint64{1} << 17;
  static constexpr uint64 kInfoHasUnixInfo = uint64{1} << 20;
  // Every defined info-item bit.
  static constexpr uint64 kAllInfoItems = (uint64{1} << 26) - 1;

  // The function's name as in the table above ("fileExists"), or empty for a
  // number without one; for logs and tools.
  ZEL_API static String getFuncName(int funcID);

  // Writes the value of one info item (bit flag, see above) of info.
  ZEL_API static void writeInfoItem(CDataOutStream& out, IFileInfoBase& info, uint64 flag);
  // Writes mask and then the items it names; bits outside kAllInfoItems are
  // dropped from the mask.
  ZEL_API static void writeInfoItemsByMask(CDataOutStream& out, IFileInfoBase& info, uint64 mask);
  // Reads what writeInfoItemsByMask wrote into info: sets each value and adds
  // the received CachedInfo bits to info's cached-info mask. Returns the mask
  // read. Unknown bits: CIOError InvalidData.
  ZEL_API static uint64 readInfoItems(CDataInStream& in, CFileInfoBase& info);
};

}  // namespace zel
