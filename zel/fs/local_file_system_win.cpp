// Windows backend of the local file system: one Win32 step per function.
//
// Paths: the portable layer hands over native paths ("C:\dir\f.txt",
// "\\server\share\dir"). Absolute paths without "." or ".." components are
// passed to Win32 with the "\\?\" ("\\?\UNC\") prefix so that paths longer
// than MAX_PATH work; that prefix turns off Win32's own normalisation, so
// "/" is converted to "\" and repeated separators are merged first. Relative
// paths and paths with "." or ".." components are passed as they are (Win32
// resolves them, within MAX_PATH). With the prefix, names ending in a dot or a
// blank are taken as they stand instead of being trimmed. Link targets are
// stored exactly as given.
// Paths handed back (volume roots, link targets) never carry the prefix.
//
// Errors: GetLastError codes, converted once where the call failed, with
// "func" and "action". Where a call reports success without doing its work,
// or the volume lacks a facility, the error is made up here with a system
// code that the error predicates classify as unsupported.
//
// Handles: every handle is owned by a CScopedHandle (or the folder listing)
// and closed on every path; closing keeps the last error for the caller.
#include <cstddef>
#include <cstring>
#include <string>

#include "zel/core/error.h"
#include "zel/fs/file_stream.h"
#include "zel/fs/local_file_system_platform.h"
#include "zel/internal/win_include.h"
#include "zel/path/uri.h"

// After win_include.h: the control codes for reparse points.
#include <winioctl.h>

namespace zel::fs_platform {

namespace {

// Closes a HANDLE on every path, keeping the last error for the caller.
class CScopedHandle {
 public:
  explicit CScopedHandle(HANDLE handle = INVALID_HANDLE_VALUE) : m_handle(handle) {}
  ~CScopedHandle() { reset(); }
  CScopedHandle(const CScopedHandle&) = delete;
  CScopedHandle& operator=(const CScopedHandle&) = delete;

  bool isValid() const { return m_handle != INVALID_HANDLE_VALUE && m_handle != nullptr; }
  HANDLE get() const { return m_handle; }
  void reset() {
    if (isValid()) {
      CPreserveLastSysError preserve;
      ::CloseHandle(m_handle);
    }
    m_handle = INVALID_HANDLE_VALUE;
  }

 private:
  HANDLE m_handle;
};

// Reads the last error before anything else can disturb it.
[[noreturn]] void fail(const char* func, const char* action) {
  const int64 code = getLastSysError();
  throwSysError(func, String("fs_platform::") + action, code);
}

[[noreturn]] void failWith(const char* func, const char* action, DWORD code) {
  throwSysError(func, String("fs_platform::") + action, static_cast<int64>(code));
}

// A facility the volume or the system does not offer: a CFileSystemError with
// ProblemUnsupported around a "sys" error whose code the predicates take as
// unsupported.
[[noreturn]] void failUnsupported(const char* func, const char* action, const String& message) {
  CProps params;
  params.set("func", func);
  params.set("action", String("fs_platform::") + action);
  throw CFileSystemError(CFileSystemError::ProblemUnsupported,
                         CError(message, CError::winSysErrorDomain(), ERROR_INVALID_FUNCTION, params));
}

HANDLE toHandle(Handle handle) { return reinterpret_cast<HANDLE>(static_cast<intptr_t>(handle)); }
Handle fromHandle(HANDLE handle) { return static_cast<Handle>(reinterpret_cast<intptr_t>(handle)); }

int64 combine(DWORD high, DWORD low) {
  return static_cast<int64>((static_cast<uint64>(high) << 32) | low);
}
DWORD lowPart(int64 value) { return static_cast<DWORD>(static_cast<uint64>(value) & 0xFFFFFFFFu); }
DWORD highPart(int64 value) { return static_cast<DWORD>(static_cast<uint64>(value) >> 32); }

// Positional I/O and range locks on synchronous handles: the offset travels in
// the OVERLAPPED structure, no event is needed.
OVERLAPPED atOffset(int64 position) {
  OVERLAPPED overlapped = {};
  overlapped.Offset = lowPart(position);
  overlapped.OffsetHigh = highPart(position);
  return overlapped;
}

bool isSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

bool hasDotComponent(const std::wstring& path) {
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = start;
    while (end < path.size() && !isSeparator(path[end])) ++end;
    const std::wstring part = path.substr(start, end - start);
    if (part == L"." || part == L"..") return true;
    start = end + 1;
  }
  return false;
}

// "/" to "\" and runs of separators merged into one.
std::wstring cleanSeparators(const std::wstring& path) {
  std::wstring result;
  bool lastWasSeparator = false;
  for (size_t i = 0; i < path.size(); ++i) {
    const bool separator = isSeparator(path[i]);
    if (separator && lastWasSeparator) continue;
    result += separator ? L'\\' : path[i];
    lastWasSeparator = separator;
  }
  return result;
}

// The path as passed to Win32 (see the file comment).
std::wstring toWin32(const String& path) {
  const std::wstring text = path.toStdWString();
  if (text.size() >= 4 && isSeparator(text[0]) && isSeparator(text[1]) &&
      (text[2] == L'?' || text[2] == L'.') && isSeparator(text[3])) {
    return text;  // already a device or long path
  }
  if (hasDotComponent(text)) return text;
  const bool driveAbsolute = text.size() >= 3 && ((text[0] >= L'A' && text[0] <= L'Z') ||
                                                   (text[0] >= L'a' && text[0] <= L'z')) &&
                             text[1] == L':' && isSeparator(text[2]);
  if (driveAbsolute) return L"\\\\?\\" + cleanSeparators(text);
  const bool unc = text.size() >= 3 && isSeparator(text[0]) && isSeparator(text[1]) &&
                   !isSeparator(text[2]);
  if (unc) return L"\\\\?\\UNC\\" + cleanSeparators(text.substr(2));
  return text;
}

// Removes the prefix toWin32 adds (and the NT "\??\" form found in links).
String fromWin32(const std::wstring& path) {
  for (const wchar_t* prefix : {L"\\\\?\\UNC\\", L"\\??\\UNC\\"}) {
    const size_t length = wcslen(prefix);
    if (path.compare(0, length, prefix) == 0) return String(L"\\\\" + path.substr(length));
  }
  for (const wchar_t* prefix : {L"\\\\?\\", L"\\??\\"}) {
    const size_t length = wcslen(prefix);
    if (path.compare(0, length, prefix) == 0) return String(path.substr(length));
  }
  return String(path);
}

CTime fromFileTime(const FILETIME& time) {
  const int64 ticks =
      static_cast<int64>((static_cast<uint64>(time.dwHighDateTime) << 32) | time.dwLowDateTime);
  // Zero means the file system does not keep this time.
  return ticks == 0 ? CTime() : CTime::fromFileTime(ticks);
}

CTime fromLargeInteger(const LARGE_INTEGER& time) {
  return time.QuadPart == 0 ? CTime() : CTime::fromFileTime(time.QuadPart);
}

FILETIME toFileTime(const CTime& time) {
  const uint64 ticks = static_cast<uint64>(time.toFileTime());
  FILETIME result;
  result.dwLowDateTime = static_cast<DWORD>(ticks & 0xFFFFFFFFu);
  result.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
  return result;
}

bool isNotFoundCode(DWORD code) {
  return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND || code == ERROR_DIRECTORY;
}

// A reparse point's data. The SDK declares REPARSE_DATA_BUFFER only in the
// driver kit headers; this is its layout for the two link kinds.
struct CReparseHeader {
  ULONG tag;
  USHORT dataLength;
  USHORT reserved;
};
struct CSymLinkReparse {  // after the header
  USHORT substituteNameOffset;
  USHORT substituteNameLength;
  USHORT printNameOffset;
  USHORT printNameLength;
  ULONG flags;  // SYMLINK_FLAG_RELATIVE
};
struct CMountPointReparse {  // after the header
  USHORT substituteNameOffset;
  USHORT substituteNameLength;
  USHORT printNameOffset;
  USHORT printNameLength;
};

struct CLinkData {
  ULONG tag = 0;
  String target;
};

// Reads the reparse point of an entry opened with FILE_FLAG_OPEN_REPARSE_POINT.
// Returns false for reparse points that are no links (cloud files, dedup ...)
// and for entries without reparse data.
bool readReparseLink(HANDLE handle, const char* action, CLinkData& link) {
  std::vector<unsigned char> buffer(MAXIMUM_REPARSE_DATA_BUFFER_SIZE);
  DWORD returned = 0;
  if (!::DeviceIoControl(handle, FSCTL_GET_REPARSE_POINT, nullptr, 0, buffer.data(),
                         static_cast<DWORD>(buffer.size()), &returned, nullptr)) {
    // The attribute can be set where the data cannot be read back (Wine marks
    // folder links of the host that way): describe the entry as it is.
    if (::GetLastError() == ERROR_NOT_A_REPARSE_POINT) return false;
    fail("DeviceIoControl", action);
  }
  if (returned < sizeof(CReparseHeader)) failWith("DeviceIoControl", action, ERROR_NOT_A_REPARSE_POINT);
  CReparseHeader header;
  std::memcpy(&header, buffer.data(), sizeof header);
  link.tag = header.tag;
  size_t pathsStart = 0;
  USHORT subOffset = 0, subLength = 0, printOffset = 0, printLength = 0;
  if (header.tag == IO_REPARSE_TAG_SYMLINK) {
    CSymLinkReparse data;
    if (returned < sizeof header + sizeof data) failWith("DeviceIoControl", action, ERROR_INVALID_DATA);
    std::memcpy(&data, buffer.data() + sizeof header, sizeof data);
    pathsStart = sizeof header + sizeof data;
    subOffset = data.substituteNameOffset;
    subLength = data.substituteNameLength;
    printOffset = data.printNameOffset;
    printLength = data.printNameLength;
  } else if (header.tag == IO_REPARSE_TAG_MOUNT_POINT) {
    CMountPointReparse data;
    if (returned < sizeof header + sizeof data) failWith("DeviceIoControl", action, ERROR_INVALID_DATA);
    std::memcpy(&data, buffer.data() + sizeof header, sizeof data);
    pathsStart = sizeof header + sizeof data;
    subOffset = data.substituteNameOffset;
    subLength = data.substituteNameLength;
    printOffset = data.printNameOffset;
    printLength = data.printNameLength;
  } else {
    return false;
  }
  // Offsets and lengths are in bytes, relative to the path buffer; the data
  // comes from the file system, so check that they stay inside what it gave.
  auto name = [&](USHORT offset, USHORT length) -> std::wstring {
    const size_t begin = pathsStart + offset;
    if (begin + length > returned) failWith("DeviceIoControl", action, ERROR_INVALID_DATA);
    std::wstring text(length / sizeof(wchar_t), L'\0');
    if (!text.empty()) std::memcpy(text.data(), buffer.data() + begin, text.size() * sizeof(wchar_t));
    return text;
  };
  // The print name is what the user gave; the substitute name is the NT form
  // ("\??\C:\...") and serves when a tool left the print name empty.
  const std::wstring print = name(printOffset, printLength);
  link.target = print.empty() ? fromWin32(name(subOffset, subLength)) : String(print);
  return true;
}

// The attributes SetFileAttributesW accepts; the others (folder, reparse point,
// compressed, encrypted, sparse ...) are changed by other means or not at all.
constexpr DWORD kSettableAttributes = FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_HIDDEN |
                                      FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED |
                                      FILE_ATTRIBUTE_OFFLINE | FILE_ATTRIBUTE_READONLY |
                                      FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_TEMPORARY;

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// The root of the volume that holds path, without the long-path prefix and
// with its trailing separator ("C:\", "\\server\share\"): the form the
// volume calls expect. Volume roots are short, so no prefix is needed.
std::wstring volumePathOf(const std::wstring& path, const char* action) {
  std::wstring root(path.size() + MAX_PATH + 1, L'\0');
  if (!::GetVolumePathNameW(path.c_str(), root.data(), static_cast<DWORD>(root.size()))) {
    fail("GetVolumePathNameW", action);
  }
  root.resize(wcslen(root.c_str()));
  std::wstring plain = fromWin32(root).toStdWString();
  if (plain.empty() || !isSeparator(plain.back())) plain += L'\\';
  return plain;
}

std::wstring withTrailingSeparator(std::wstring path) {
  if (path.empty() || !isSeparator(path.back())) path += L'\\';
  return path;
}

// The file-system flags (FILE_NAMED_STREAMS, FILE_SUPPORTS_REPARSE_POINTS ...)
// of the volume that holds path; path need not exist.
DWORD volumeFlagsOf(const std::wstring& path, const char* action) {
  const std::wstring root = volumePathOf(path, action);
  DWORD serial = 0, maxComponent = 0, flags = 0;
  if (!::GetVolumeInformationW(root.c_str(), nullptr, 0, &serial, &maxComponent, &flags, nullptr, 0)) {
    fail("GetVolumeInformationW", action);
  }
  return flags;
}

// Links are reparse points; volumes without them (FAT, and Wine's mapping of
// Unix folders) are told apart before anything is created.
void requireReparsePoints(const std::wstring& path, const char* func, const char* action) {
  if (!(volumeFlagsOf(path, action) & FILE_SUPPORTS_REPARSE_POINTS)) {
    failUnsupported(func, action, "The file system does not support symbolic links or junctions.");
  }
}

}  // namespace

// ---- Files ------------------------------------------------------------------

Handle openFile(const String& path, Disposition disposition, bool readWrite, bool exclusive) {
  DWORD creation = OPEN_EXISTING;
  switch (disposition) {
    case Disposition::OpenExisting: creation = OPEN_EXISTING; break;
    case Disposition::OpenAlways: creation = OPEN_ALWAYS; break;
    case Disposition::CreateNew: creation = CREATE_NEW; break;
    case Disposition::CreateAlways: creation = CREATE_ALWAYS; break;
  }
  // CREATE_ALWAYS on an existing hidden or system file fails with
  // ERROR_ACCESS_DENIED (Windows demands matching attributes); that is left
  // to the caller to see rather than papered over with a non-atomic truncate.
  const DWORD access = GENERIC_READ | (readWrite ? GENERIC_WRITE : 0);
  const DWORD share = exclusive ? FILE_SHARE_READ : kShareAll;
  HANDLE handle = ::CreateFileW(toWin32(path).c_str(), access, share, nullptr, creation,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) fail("CreateFileW", "openFile");
  return fromHandle(handle);
}

void closeFile(Handle handle) {
  if (!::CloseHandle(toHandle(handle))) fail("CloseHandle", "closeFile");
}

int readAt(Handle handle, int64 position, void* buffer, int bytes) {
  if (bytes <= 0) return 0;
  OVERLAPPED overlapped = atOffset(position);
  DWORD got = 0;
  if (!::ReadFile(toHandle(handle), buffer, static_cast<DWORD>(bytes), &got, &overlapped)) {
    // With an explicit offset a synchronous read at or past the end fails
    // with ERROR_HANDLE_EOF instead of returning 0 bytes.
    if (::GetLastError() == ERROR_HANDLE_EOF) return 0;
    fail("ReadFile", "readAt");
  }
  return static_cast<int>(got);
}

void writeAt(Handle handle, int64 position, const void* buffer, int bytes) {
  const auto* data = static_cast<const unsigned char*>(buffer);
  while (bytes > 0) {
    OVERLAPPED overlapped = atOffset(position);
    DWORD written = 0;
    if (!::WriteFile(toHandle(handle), data, static_cast<DWORD>(bytes), &written, &overlapped)) {
      fail("WriteFile", "writeAt");
    }
    if (written == 0) failWith("WriteFile", "writeAt", ERROR_WRITE_FAULT);
    data += written;
    position += written;
    bytes -= static_cast<int>(written);
  }
}

int64 getFileSize(Handle handle) {
  LARGE_INTEGER size;
  if (!::GetFileSizeEx(toHandle(handle), &size)) fail("GetFileSizeEx", "getFileSize");
  return size.QuadPart;
}

void setFileSize(Handle handle, int64 size) {
  // The handle's own position is not used by the streams (positional I/O), so
  // moving it here is harmless.
  LARGE_INTEGER distance;
  distance.QuadPart = size;
  if (!::SetFilePointerEx(toHandle(handle), distance, nullptr, FILE_BEGIN)) {
    fail("SetFilePointerEx", "setFileSize");
  }
  if (!::SetEndOfFile(toHandle(handle))) fail("SetEndOfFile", "setFileSize");
}

void flushFile(Handle handle) {
  if (!::FlushFileBuffers(toHandle(handle))) fail("FlushFileBuffers", "flushFile");
}

bool lockRange(Handle handle, int64 start, int64 length, bool exclusive) {
  OVERLAPPED overlapped = atOffset(start);
  const DWORD flags = LOCKFILE_FAIL_IMMEDIATELY | (exclusive ? LOCKFILE_EXCLUSIVE_LOCK : 0);
  if (!::LockFileEx(toHandle(handle), flags, 0, lowPart(length), highPart(length), &overlapped)) {
    if (::GetLastError() == ERROR_LOCK_VIOLATION) return false;
    fail("LockFileEx", "lockRange");
  }
  return true;
}

void unlockRange(Handle handle, int64 start, int64 length) {
  OVERLAPPED overlapped = atOffset(start);
  if (!::UnlockFileEx(toHandle(handle), 0, lowPart(length), highPart(length), &overlapped)) {
    fail("UnlockFileEx", "unlockRange");
  }
}

// ---- Entries ----------------------------------------------------------------

namespace {

void fillFromAttributes(DWORD attributes, EntryInfo& info) {
  if (attributes & FILE_ATTRIBUTE_DIRECTORY) {
    info.type = EntryType::Folder;
  } else if (attributes & FILE_ATTRIBUTE_DEVICE) {
    info.type = EntryType::Other;
  } else {
    info.type = EntryType::File;
  }
  info.readOnly = (attributes & FILE_ATTRIBUTE_READONLY) != 0;
  info.hidden = (attributes & FILE_ATTRIBUTE_HIDDEN) != 0;
  info.encrypted = (attributes & FILE_ATTRIBUTE_ENCRYPTED) != 0;
  info.compressed = (attributes & FILE_ATTRIBUTE_COMPRESSED) != 0;
  info.sparse = (attributes & FILE_ATTRIBUTE_SPARSE_FILE) != 0;
  info.indexable = (attributes & FILE_ATTRIBUTE_NOT_CONTENT_INDEXED) == 0;
  info.hasWindowsInfo = true;
  info.windowsAttributes = attributes;
}

}  // namespace

bool getEntryType(const String& path, EntryType& type) {
  EntryInfo info;
  if (!statEntry(path, true, info)) return false;
  type = info.type;
  return true;
}

bool statEntry(const String& path, bool followLinks, EntryInfo& info) {
  const std::wstring native = toWin32(path);
  info = EntryInfo();

  // The entry itself first: GetFileAttributesExW never follows a link.
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!::GetFileAttributesExW(native.c_str(), GetFileExInfoStandard, &data)) {
    if (isNotFoundCode(::GetLastError())) return false;
    fail("GetFileAttributesExW", "statEntry");
  }
  bool isLink = false;
  if (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) {
    CScopedHandle reparse(::CreateFileW(native.c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr,
                                        OPEN_EXISTING,
                                        FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                        nullptr));
    if (!reparse.isValid()) {
      if (isNotFoundCode(::GetLastError())) return false;  // removed meanwhile
      fail("CreateFileW", "statEntry");
    }
    CLinkData link;
    if (readReparseLink(reparse.get(), "statEntry", link)) {
      isLink = true;
      info.isSymLink = true;
      info.isJunction = link.tag == IO_REPARSE_TAG_MOUNT_POINT;
      info.symLinkTarget = link.target;
    }
  }

  const bool follow = isLink && followLinks;
  // FILE_READ_ATTRIBUTES is not subject to sharing, so files others hold
  // exclusively can still be described.
  CScopedHandle handle(::CreateFileW(
      native.c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr, OPEN_EXISTING,
      FILE_FLAG_BACKUP_SEMANTICS | (follow ? 0 : FILE_FLAG_OPEN_REPARSE_POINT), nullptr));
  if (!handle.isValid()) {
    const DWORD code = ::GetLastError();
    if (isNotFoundCode(code)) return false;  // a dangling link, or removed meanwhile
    if (!follow && (code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION)) {
      // Some system files refuse every open; what the folder knows is enough.
      fillFromAttributes(data.dwFileAttributes, info);
      info.size = info.type == EntryType::File ? combine(data.nFileSizeHigh, data.nFileSizeLow) : 0;
      info.createdTime = fromFileTime(data.ftCreationTime);
      info.dataModifiedTime = fromFileTime(data.ftLastWriteTime);
      info.accessedTime = fromFileTime(data.ftLastAccessTime);
      return true;
    }
    failWith("CreateFileW", "statEntry", code);
  }

  BY_HANDLE_FILE_INFORMATION byHandle;
  if (!::GetFileInformationByHandle(handle.get(), &byHandle)) {
    fail("GetFileInformationByHandle", "statEntry");
  }
  fillFromAttributes(byHandle.dwFileAttributes, info);
  info.size =
      info.type == EntryType::File ? combine(byHandle.nFileSizeHigh, byHandle.nFileSizeLow) : 0;
  info.createdTime = fromFileTime(byHandle.ftCreationTime);
  info.dataModifiedTime = fromFileTime(byHandle.ftLastWriteTime);
  info.accessedTime = fromFileTime(byHandle.ftLastAccessTime);
  info.id = combine(byHandle.nFileIndexHigh, byHandle.nFileIndexLow);
  info.volumeID = static_cast<int64>(byHandle.dwVolumeSerialNumber);
  info.linkCount = static_cast<int64>(byHandle.nNumberOfLinks);

  // The change time (metadata) is only in the basic information; file systems
  // that do not offer it leave the time invalid.
  FILE_BASIC_INFO basic;
  if (::GetFileInformationByHandleEx(handle.get(), FileBasicInfo, &basic, sizeof basic)) {
    info.metaModifiedTime = fromLargeInteger(basic.ChangeTime);
  }
  return true;
}

// ---- Folder listing ---------------------------------------------------------

namespace {

struct CFolderListing {
  HANDLE find = INVALID_HANDLE_VALUE;
  WIN32_FIND_DATAW data;
  bool pending = false;  // data holds an entry not yet returned
};

}  // namespace

Folder openFolder(const String& path) {
  std::wstring pattern = withTrailingSeparator(toWin32(path)) + L"*";
  auto* listing = new CFolderListing;
  listing->find = ::FindFirstFileW(pattern.c_str(), &listing->data);
  if (listing->find == INVALID_HANDLE_VALUE) {
    const DWORD code = ::GetLastError();
    // A folder without even "." and ".." (a volume root) is an empty listing.
    if (code == ERROR_FILE_NOT_FOUND) return listing;
    delete listing;
    failWith("FindFirstFileW", "openFolder", code);
  }
  listing->pending = true;
  return listing;
}

bool readFolderEntry(Folder folder, String& name) {
  auto* listing = static_cast<CFolderListing*>(folder);
  if (listing->find == INVALID_HANDLE_VALUE) return false;
  for (;;) {
    if (!listing->pending) {
      if (!::FindNextFileW(listing->find, &listing->data)) {
        if (::GetLastError() == ERROR_NO_MORE_FILES) return false;
        fail("FindNextFileW", "readFolderEntry");
      }
    }
    listing->pending = false;
    const wchar_t* entry = listing->data.cFileName;
    if (wcscmp(entry, L".") == 0 || wcscmp(entry, L"..") == 0) continue;
    name = String(entry);
    return true;
  }
}

void closeFolder(Folder folder) noexcept {
  auto* listing = static_cast<CFolderListing*>(folder);
  if (!listing) return;
  if (listing->find != INVALID_HANDLE_VALUE) {
    CPreserveLastSysError preserve;
    ::FindClose(listing->find);
  }
  delete listing;
}

// ---- Creating, removing, moving ---------------------------------------------

void createFolder(const String& path) {
  if (!::CreateDirectoryW(toWin32(path).c_str(), nullptr)) fail("CreateDirectoryW", "createFolder");
}

void removeFile(const String& path) {
  if (!::DeleteFileW(toWin32(path).c_str())) fail("DeleteFileW", "removeFile");
}

void removeFolder(const String& path) {
  if (!::RemoveDirectoryW(toWin32(path).c_str())) fail("RemoveDirectoryW", "removeFolder");
}

void removeLink(const String& path) {
  const std::wstring native = toWin32(path);
  const DWORD attributes = ::GetFileAttributesW(native.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) fail("GetFileAttributesW", "removeLink");
  if (!(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
    failWith("GetFileAttributesW", "removeLink", ERROR_NOT_A_REPARSE_POINT);
  }
  // A link to a folder (symbolic link or junction) is itself a folder entry;
  // removing it leaves the target alone.
  if (attributes & FILE_ATTRIBUTE_DIRECTORY) {
    if (!::RemoveDirectoryW(native.c_str())) fail("RemoveDirectoryW", "removeLink");
  } else {
    if (!::DeleteFileW(native.c_str())) fail("DeleteFileW", "removeLink");
  }
}

void renameEntry(const String& from, const String& to, bool overwrite) {
  if (!::MoveFileExW(toWin32(from).c_str(), toWin32(to).c_str(),
                     overwrite ? MOVEFILE_REPLACE_EXISTING : 0)) {
    fail("MoveFileExW", "renameEntry");
  }
}

void copyFile(const String& from, const String& to, bool overwrite) {
  if (!::CopyFileW(toWin32(from).c_str(), toWin32(to).c_str(), overwrite ? FALSE : TRUE)) {
    fail("CopyFileW", "copyFile");
  }
}

void createHardLink(const String& link, const String& target) {
  if (!::CreateHardLinkW(toWin32(link).c_str(), toWin32(target).c_str(), nullptr)) {
    fail("CreateHardLinkW", "createHardLink");
  }
}

void createFolderHardLink(const String& link, const String& target) {
  // A junction: an empty folder carrying a mount-point reparse point whose
  // substitute name is the NT form of the absolute target.
  const std::wstring targetText = target.toStdWString();
  DWORD needed = ::GetFullPathNameW(targetText.c_str(), 0, nullptr, nullptr);
  if (needed == 0) fail("GetFullPathNameW", "createFolderHardLink");
  std::wstring full(needed, L'\0');
  needed = ::GetFullPathNameW(targetText.c_str(), needed, full.data(), nullptr);
  if (needed == 0 || needed >= full.size()) fail("GetFullPathNameW", "createFolderHardLink");
  full.resize(needed);
  const String printName = fromWin32(full);
  const std::wstring print = printName.toStdWString();
  std::wstring substitute;
  if (print.size() >= 2 && isSeparator(print[0]) && isSeparator(print[1])) {
    substitute = L"\\??\\UNC\\" + print.substr(2);
  } else {
    substitute = L"\\??\\" + print;
  }
  const size_t subBytes = substitute.size() * sizeof(wchar_t);
  const size_t printBytes = print.size() * sizeof(wchar_t);
  // Both names are stored with a terminating null that the lengths leave out.
  const size_t pathBytes = subBytes + sizeof(wchar_t) + printBytes + sizeof(wchar_t);
  const size_t dataLength = sizeof(CMountPointReparse) + pathBytes;
  if (dataLength + sizeof(CReparseHeader) > MAXIMUM_REPARSE_DATA_BUFFER_SIZE) {
    failWith("DeviceIoControl", "createFolderHardLink", ERROR_FILENAME_EXCED_RANGE);
  }
  std::vector<unsigned char> buffer(sizeof(CReparseHeader) + dataLength, 0);
  CReparseHeader header = {IO_REPARSE_TAG_MOUNT_POINT, static_cast<USHORT>(dataLength), 0};
  CMountPointReparse names = {0, static_cast<USHORT>(subBytes),
                              static_cast<USHORT>(subBytes + sizeof(wchar_t)),
                              static_cast<USHORT>(printBytes)};
  std::memcpy(buffer.data(), &header, sizeof header);
  std::memcpy(buffer.data() + sizeof header, &names, sizeof names);
  unsigned char* paths = buffer.data() + sizeof header + sizeof names;
  std::memcpy(paths, substitute.data(), subBytes);
  std::memcpy(paths + subBytes + sizeof(wchar_t), print.data(), printBytes);

  const std::wstring native = toWin32(link);
  requireReparsePoints(native, "DeviceIoControl", "createFolderHardLink");
  if (!::CreateDirectoryW(native.c_str(), nullptr)) fail("CreateDirectoryW", "createFolderHardLink");
  // From here a failure removes the folder again, keeping the error.
  auto removeAndFail = [&](const char* func) {
    const int64 code = getLastSysError();
    ::RemoveDirectoryW(native.c_str());
    throwSysError(func, "fs_platform::createFolderHardLink", code);
  };
  CScopedHandle handle(::CreateFileW(native.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                     FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                     nullptr));
  if (!handle.isValid()) removeAndFail("CreateFileW");
  DWORD returned = 0;
  if (!::DeviceIoControl(handle.get(), FSCTL_SET_REPARSE_POINT, buffer.data(),
                         static_cast<DWORD>(buffer.size()), nullptr, 0, &returned, nullptr)) {
    handle.reset();  // the folder cannot go while it is open; keeps the error
    removeAndFail("DeviceIoControl");
  }
}

void createSymLink(const String& link, const String& target, bool isFolder) {
  const std::wstring native = toWin32(link);
  const std::wstring targetText = target.toStdWString();  // stored as given
  const DWORD kind = isFolder ? SYMBOLIC_LINK_FLAG_DIRECTORY : 0;
  requireReparsePoints(native, "CreateSymbolicLinkW", "createSymLink");
  // Unprivileged creation works in developer mode; systems that predate the
  // flag reject it as an invalid parameter, so try once more without it.
  if (!::CreateSymbolicLinkW(native.c_str(), targetText.c_str(),
                             kind | SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE)) {
    if (::GetLastError() != ERROR_INVALID_PARAMETER ||
        !::CreateSymbolicLinkW(native.c_str(), targetText.c_str(), kind)) {
      fail("CreateSymbolicLinkW", "createSymLink");
    }
  }
  // Some implementations (Wine) report success without creating anything; a
  // caller must not believe in a link that is not there.
  const DWORD attributes = ::GetFileAttributesW(native.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
    failUnsupported("CreateSymbolicLinkW", "createSymLink",
                    "The system reported a symbolic link as created, but there is none.");
  }
}

String readSymLink(const String& path) {
  CScopedHandle handle(::CreateFileW(toWin32(path).c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr,
                                     OPEN_EXISTING,
                                     FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                     nullptr));
  if (!handle.isValid()) fail("CreateFileW", "readSymLink");
  CLinkData link;
  if (!readReparseLink(handle.get(), "readSymLink", link)) {
    failWith("DeviceIoControl", "readSymLink", ERROR_NOT_A_REPARSE_POINT);
  }
  return link.target;
}

// ---- Times and attributes ---------------------------------------------------

void applyMetaChanges(const String& path, bool followLinks, const MetaChanges& changes) {
  const std::wstring native = toWin32(path);
  if (changes.setCreatedTime || changes.setDataModifiedTime) {
    // FILE_WRITE_ATTRIBUTES is granted on read-only files too.
    CScopedHandle handle(::CreateFileW(
        native.c_str(), FILE_WRITE_ATTRIBUTES, kShareAll, nullptr, OPEN_EXISTING,
        FILE_FLAG_BACKUP_SEMANTICS | (followLinks ? 0 : FILE_FLAG_OPEN_REPARSE_POINT), nullptr));
    if (!handle.isValid()) fail("CreateFileW", "applyMetaChanges");
    FILETIME created = {}, modified = {};
    if (changes.setCreatedTime) created = toFileTime(changes.createdTime);
    if (changes.setDataModifiedTime) modified = toFileTime(changes.dataModifiedTime);
    if (!::SetFileTime(handle.get(), changes.setCreatedTime ? &created : nullptr, nullptr,
                       changes.setDataModifiedTime ? &modified : nullptr)) {
      fail("SetFileTime", "applyMetaChanges");
    }
  }
  if (changes.setReadOnly || changes.setHidden || changes.setIndexable ||
      changes.setWindowsAttributes) {
    DWORD attributes = 0;
    if (changes.setWindowsAttributes) {
      attributes = static_cast<DWORD>(changes.windowsAttributes & 0xFFFFFFFFu);
    } else {
      attributes = ::GetFileAttributesW(native.c_str());
      if (attributes == INVALID_FILE_ATTRIBUTES) fail("GetFileAttributesW", "applyMetaChanges");
    }
    auto setBit = [&](DWORD bit, bool on) { attributes = on ? (attributes | bit) : (attributes & ~bit); };
    if (changes.setReadOnly) setBit(FILE_ATTRIBUTE_READONLY, changes.readOnly);
    if (changes.setHidden) setBit(FILE_ATTRIBUTE_HIDDEN, changes.hidden);
    if (changes.setIndexable) setBit(FILE_ATTRIBUTE_NOT_CONTENT_INDEXED, !changes.indexable);
    attributes &= kSettableAttributes;
    // FILE_ATTRIBUTE_NORMAL is valid only alone.
    if (attributes & ~FILE_ATTRIBUTE_NORMAL) attributes &= ~FILE_ATTRIBUTE_NORMAL;
    if (attributes == 0) attributes = FILE_ATTRIBUTE_NORMAL;
    // SetFileAttributesW changes the entry itself; a link's target keeps its
    // attributes (the Windows meaning of attributes on a link).
    if (!::SetFileAttributesW(native.c_str(), attributes)) fail("SetFileAttributesW", "applyMetaChanges");
  }
}

// ---- Volumes and accounts ---------------------------------------------------

int64 getFreeSpace(const String& path) {
  ULARGE_INTEGER available, total, free;
  // A folder path; UNC paths need the trailing separator.
  if (!::GetDiskFreeSpaceExW(withTrailingSeparator(toWin32(path)).c_str(), &available, &total, &free)) {
    fail("GetDiskFreeSpaceExW", "getFreeSpace");
  }
  return static_cast<int64>(available.QuadPart);
}

int64 getSectorSize(const String& path) {
  // GetDiskFreeSpaceW wants the root of the volume.
  const std::wstring root = volumePathOf(toWin32(path), "getSectorSize");
  DWORD sectorsPerCluster = 0, bytesPerSector = 0, freeClusters = 0, totalClusters = 0;
  if (!::GetDiskFreeSpaceW(root.c_str(), &sectorsPerCluster, &bytesPerSector, &freeClusters,
                           &totalClusters)) {
    fail("GetDiskFreeSpaceW", "getSectorSize");
  }
  return static_cast<int64>(bytesPerSector);
}

String getVolumeRoot(const String& path) {
  return String(volumePathOf(toWin32(path), "getVolumeRoot"));
}

String getCurrentUserName() {
  std::wstring name(257, L'\0');  // UNLEN + 1
  DWORD size = static_cast<DWORD>(name.size());
  if (!::GetUserNameW(name.data(), &size)) {
    if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER) fail("GetUserNameW", "getCurrentUserName");
    name.assign(size, L'\0');
    if (!::GetUserNameW(name.data(), &size)) fail("GetUserNameW", "getCurrentUserName");
  }
  name.resize(wcslen(name.c_str()));
  return String(name);
}

// Windows accounts are not Unix IDs.
String getUserName(int64) { return String(); }
String getGroupName(int64) { return String(); }

// ---- Sub data streams and native metadata -----------------------------------

P<IIOStream> openSubDataStream(const CURI& uri, const String& path, const String& name,
                               Disposition disposition, bool readWrite, bool exclusive) {
  // Alternate data streams exist only on volumes that say so (NTFS, ReFS);
  // elsewhere "file:name" would be taken as a file name of its own, or
  // refused with a misleading error.
  if (!(volumeFlagsOf(toWin32(path), "openSubDataStream") & FILE_NAMED_STREAMS)) {
    failUnsupported("GetVolumeInformationW", "openSubDataStream",
                    "The file system does not support alternate data streams.");
  }
  const Handle handle = openFile(path + String(":") + name, disposition, readWrite, exclusive);
  return createObject<CFileStream>(handle, uri, readWrite);
}

namespace {

// Ends a BackupRead sequence on every path so that its context is freed.
class CBackupContext {
 public:
  explicit CBackupContext(HANDLE handle) : m_handle(handle) {}
  ~CBackupContext() {
    if (m_context) {
      CPreserveLastSysError preserve;
      DWORD done = 0;
      ::BackupRead(m_handle, nullptr, 0, &done, TRUE, FALSE, &m_context);
    }
  }
  CBackupContext(const CBackupContext&) = delete;
  CBackupContext& operator=(const CBackupContext&) = delete;

  // Reads exactly bytes unless the whole backup stream ends first; returns the
  // count read.
  DWORD read(unsigned char* buffer, DWORD bytes) {
    DWORD total = 0;
    while (total < bytes) {
      DWORD got = 0;
      if (!::BackupRead(m_handle, buffer + total, bytes - total, &got, FALSE, TRUE, &m_context)) {
        fail("BackupRead", "readNativeMetaData");
      }
      if (got == 0) break;
      total += got;
    }
    return total;
  }

  // Skips the current stream's content. BackupSeek never passes the end of
  // the current stream and fails when it stops short, so bytes must be exactly
  // what is left of it; anything else would lose the place of the next header.
  void skip(uint64 bytes) {
    if (bytes == 0) return;
    DWORD low = 0, high = 0;
    if (!::BackupSeek(m_handle, static_cast<DWORD>(bytes & 0xFFFFFFFFu), static_cast<DWORD>(bytes >> 32),
                      &low, &high, &m_context)) {
      fail("BackupSeek", "readNativeMetaData");
    }
  }

 private:
  HANDLE m_handle;
  LPVOID m_context = nullptr;
};

}  // namespace

std::vector<unsigned char> readNativeMetaData(const String& path, bool followLinks) {
  // READ_CONTROL lets BackupRead include the security descriptor.
  CScopedHandle handle(::CreateFileW(
      toWin32(path).c_str(), GENERIC_READ | READ_CONTROL, kShareAll, nullptr, OPEN_EXISTING,
      FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_SEQUENTIAL_SCAN | (followLinks ? 0 : FILE_FLAG_OPEN_REPARSE_POINT),
      nullptr));
  if (!handle.isValid()) fail("CreateFileW", "readNativeMetaData");

  // The block is the BackupRead stream: a sequence of WIN32_STREAM_ID headers
  // (with their names) and contents: security, extended attributes, reparse
  // data, object ID, alternate data streams. The file's unnamed data
  // (BACKUP_DATA, and BACKUP_SPARSE_BLOCK for sparse files) is content, not
  // metadata: it is left out, header and all, and skipped with BackupSeek.
  std::vector<unsigned char> block;
  std::vector<unsigned char> chunk(64 * 1024);
  CBackupContext backup(handle.get());
  constexpr DWORD kHeaderSize = static_cast<DWORD>(offsetof(WIN32_STREAM_ID, cStreamName));
  for (;;) {
    unsigned char header[kHeaderSize];
    const DWORD got = backup.read(header, kHeaderSize);
    if (got == 0) break;
    if (got < kHeaderSize) failWith("BackupRead", "readNativeMetaData", ERROR_INVALID_DATA);
    WIN32_STREAM_ID id;
    std::memcpy(&id, header, kHeaderSize);
    const uint64 contentSize = static_cast<uint64>(id.Size.QuadPart);
    const bool isContent = id.dwStreamId == BACKUP_DATA || id.dwStreamId == BACKUP_SPARSE_BLOCK;

    // The name and the content are read in bounded pieces: the sizes come from
    // the file system, and the block only grows by what was really read.
    std::vector<unsigned char> name(id.dwStreamNameSize);
    if (!name.empty() && backup.read(name.data(), id.dwStreamNameSize) != id.dwStreamNameSize) {
      failWith("BackupRead", "readNativeMetaData", ERROR_INVALID_DATA);
    }
    if (isContent) {
      backup.skip(contentSize);
      continue;
    }
    block.insert(block.end(), header, header + kHeaderSize);
    block.insert(block.end(), name.begin(), name.end());
    uint64 left = contentSize;
    while (left > 0) {
      const DWORD want = static_cast<DWORD>(left < chunk.size() ? left : chunk.size());
      const DWORD read = backup.read(chunk.data(), want);
      block.insert(block.end(), chunk.begin(), chunk.begin() + read);
      if (read < want) failWith("BackupRead", "readNativeMetaData", ERROR_INVALID_DATA);
      left -= read;
    }
  }
  return block;
}

}  // namespace zel::fs_platform
