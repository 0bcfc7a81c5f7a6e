// Windows step of CShareConfinement: compare final paths
// (GetFinalPathNameByHandleW) of the root and of the path.
#include <string>

#include "zel/core/error.h"
#include "zel/core/sys_error.h"
#include "zel/fs/proxy/share_confinement_platform.h"
#include "zel/internal/win_include.h"

namespace zel::confinement_platform {

namespace {

class CScopedHandle {
 public:
  explicit CScopedHandle(HANDLE handle) : m_handle(handle) {}
  ~CScopedHandle() {
    if (isValid()) {
      CPreserveLastSysError preserve;
      ::CloseHandle(m_handle);
    }
  }
  CScopedHandle(const CScopedHandle&) = delete;
  CScopedHandle& operator=(const CScopedHandle&) = delete;
  bool isValid() const { return m_handle != INVALID_HANDLE_VALUE && m_handle != nullptr; }
  HANDLE get() const { return m_handle; }

 private:
  HANDLE m_handle;
};

[[noreturn]] void fail(const char* func, DWORD code, const std::wstring& path) {
  CProps params;
  params.set("func", func);
  params.set("action", "CShareConfinement::check");
  params.set("path", String(path));
  throw CError(getSysErrorMessage(code), CError::winSysErrorDomain(), static_cast<int64>(code),
               params);
}

bool isSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

bool isMissing(DWORD code) {
  return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND ||
         code == ERROR_BAD_NETPATH || code == ERROR_BAD_NET_NAME || code == ERROR_INVALID_NAME;
}

// The long-path form of an absolute drive or UNC path, separators cleaned;
// other paths as they are. The components were vetted (no "." or ".."), so
// the prefix, which turns off Win32's own normalisation, changes nothing else.
std::wstring toWin32(const std::wstring& text) {
  std::wstring clean;
  bool lastWasSeparator = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool separator = isSeparator(text[i]);
    // Keep the two leading separators of a UNC path.
    if (separator && lastWasSeparator && i != 1) continue;
    clean += separator ? L'\\' : text[i];
    lastWasSeparator = separator;
  }
  if (clean.size() >= 4 && clean[0] == L'\\' && clean[1] == L'\\' &&
      (clean[2] == L'?' || clean[2] == L'.') && clean[3] == L'\\') {
    return clean;
  }
  const bool drive =
      clean.size() >= 3 &&
      ((clean[0] >= L'A' && clean[0] <= L'Z') || (clean[0] >= L'a' && clean[0] <= L'z')) &&
      clean[1] == L':' && clean[2] == L'\\';
  if (drive) return L"\\\\?\\" + clean;
  if (clean.size() >= 3 && clean[0] == L'\\' && clean[1] == L'\\') {
    return L"\\\\?\\UNC\\" + clean.substr(2);
  }
  return clean;
}

// Opens path with no access rights. False when it does not exist.
bool openEntry(const std::wstring& path, bool followFinal, HANDLE& handle) {
  DWORD flags = FILE_FLAG_BACKUP_SEMANTICS;
  if (!followFinal) flags |= FILE_FLAG_OPEN_REPARSE_POINT;
  handle = ::CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_EXISTING, flags, nullptr);
  if (handle != INVALID_HANDLE_VALUE) return true;
  const DWORD code = ::GetLastError();
  if (isMissing(code)) return false;
  fail("CreateFileW", code, path);
}

std::wstring finalPath(HANDLE handle, const std::wstring& path) {
  std::wstring buffer(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length =
        ::GetFinalPathNameByHandleW(handle, buffer.data(), static_cast<DWORD>(buffer.size()),
                                    FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    if (length == 0) fail("GetFinalPathNameByHandleW", ::GetLastError(), path);
    if (length < buffer.size()) {
      buffer.resize(length);
      break;
    }
    buffer.resize(length + 1);
  }
  // Without trailing separator (a drive root ends in one).
  while (buffer.size() > 1 && isSeparator(buffer.back())) buffer.pop_back();
  return buffer;
}

bool isBelow(const std::wstring& path, const std::wstring& root) {
  if (path.size() < root.size()) return false;
  // Ordinal comparison without case, as the file system compares names.
  if (::CompareStringOrdinal(path.c_str(), static_cast<int>(root.size()), root.c_str(),
                             static_cast<int>(root.size()), TRUE) != CSTR_EQUAL) {
    return false;
  }
  return path.size() == root.size() || isSeparator(path[root.size()]) ||
         (!root.empty() && isSeparator(root.back()));
}

std::wstring joinPath(const std::wstring& root, const TArray<String>& components, int count) {
  std::wstring path = root;
  for (int i = 0; i < count; ++i) {
    if (path.empty() || !isSeparator(path.back())) path += L'\\';
    path += components[i].toStdWString();
  }
  return toWin32(path);
}

}  // namespace

// What was found is not asked of the system here: FoundUnknown.
Resolution resolve(const String& rootPath, std::atomic<int64>&, const TArray<String>& components,
                   bool followFinal, CShareConfinement::Found*) {
  const std::wstring root = rootPath.toStdWString();
  HANDLE raw;
  if (!openEntry(toWin32(root), true, raw)) return Resolution::Missing;
  std::wstring rootFinal;
  {
    CScopedHandle rootHandle(raw);
    rootFinal = finalPath(rootHandle.get(), root);
  }

  int count = components.getCount();
  bool follow = followFinal;
  bool missing = false;
  for (;;) {
    const std::wstring path = joinPath(root, components, count);
    if (openEntry(path, follow, raw)) {
      CScopedHandle handle(raw);
      if (!isBelow(finalPath(handle.get(), path), rootFinal)) return Resolution::Escapes;
      return missing ? Resolution::Missing : Resolution::Beneath;
    }
    if (follow && count > 0) {
      // The entry may be a link whose target is missing: where it leads
      // cannot be told, and creating through it would follow it.
      HANDLE link;
      if (openEntry(path, false, link)) {
        CScopedHandle closeLink(link);
        return Resolution::Escapes;
      }
    }
    missing = true;
    if (count == 0) return Resolution::Missing;
    --count;
    follow = true;
  }
}

void releaseRoot(int64) {}

void setPortableResolution(bool) {}

}  // namespace zel::confinement_platform
