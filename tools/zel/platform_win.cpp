#include "platform.h"

#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <io.h>
#include <windows.h>
#include <wx/filename.h>

#include <cstdlib>

#include "paths.h"
#include "zel/core/error.h"

namespace zeltool {

namespace {

// Runs on a thread the system starts for the event. FALSE lets the default
// handler end the process.
BOOL WINAPI onControlEvent(DWORD type) { return noteInterrupt(static_cast<int>(type) + 1); }

[[noreturn]] void failSys(const char* func, const char* action, DWORD code = 0) {
  if (code == 0) code = GetLastError();
  zel::throwSysError(func, action, code);
}

std::wstring wide(const zel::String& text) { return text.toStdWString(); }

}  // namespace

CInterruptWatch::CInterruptWatch() { SetConsoleCtrlHandler(onControlEvent, TRUE); }

CInterruptWatch::~CInterruptWatch() { SetConsoleCtrlHandler(onControlEvent, FALSE); }

const char* getInterruptName() {
  switch (getInterruptCode()) {
    case 0:
      return "";
    case CTRL_C_EVENT + 1:
      return "Ctrl+C";
    case CTRL_BREAK_EVENT + 1:
      return "Ctrl+Break";
    case CTRL_CLOSE_EVENT + 1:
      return "closing the console";
    default:
      return "the system";
  }
}

void endAsInterrupted() {
  std::fflush(nullptr);
  ExitProcess(130);
}

bool isTerminal(std::FILE* stream) { return _isatty(_fileno(stream)) != 0; }

CLocalReader::CLocalReader(const zel::String& path) {
  HANDLE handle;
  if (isStandardStream(path)) {
    handle = GetStdHandle(STD_INPUT_HANDLE);
  } else {
    const DWORD attributes = GetFileAttributesW(wide(path).c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY)) {
      throw zel::CFileSystemError(zel::CFileSystemError::ProblemWrongType,
                                  zel::CError("Is a folder"));
    }
    handle = CreateFileW(wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                         nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) failSys("CreateFileW", "CLocalReader::CLocalReader");
    m_owned = true;
  }
  m_handle = handle;
  LARGE_INTEGER size;
  if (GetFileType(handle) == FILE_TYPE_DISK && GetFileSizeEx(handle, &size)) {
    m_size = size.QuadPart;
  }
}

CLocalReader::~CLocalReader() {
  if (m_owned) CloseHandle(static_cast<HANDLE>(m_handle));
}

int CLocalReader::read(void* buffer, int bytes) {
  if (isInterrupted()) return -1;
  DWORD got = 0;
  if (!ReadFile(static_cast<HANDLE>(m_handle), buffer, static_cast<DWORD>(bytes), &got, nullptr)) {
    const DWORD code = GetLastError();
    // The writer of a pipe has gone: the end of the input.
    if (code == ERROR_BROKEN_PIPE || code == ERROR_HANDLE_EOF) return 0;
    failSys("ReadFile", "CLocalReader::read", code);
  }
  return isInterrupted() ? -1 : static_cast<int>(got);
}

CLocalWriter::CLocalWriter(const zel::String& path) : m_target(path) {
  if (isStandardStream(path)) {
    m_handle = GetStdHandle(STD_OUTPUT_HANDLE);
    return;
  }
  const wxFileName target(path.getWxString());
  const zel::String temporary =
      joinLocalPath(target.GetPath(), temporaryNameFor(target.GetFullName()));
  HANDLE handle = CreateFileW(wide(temporary).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) failSys("CreateFileW", "CLocalWriter::CLocalWriter");
  m_handle = handle;
  m_temporary = temporary;
  m_owned = true;
}

CLocalWriter::~CLocalWriter() {
  if (m_owned && m_handle) CloseHandle(static_cast<HANDLE>(m_handle));
  if (!m_temporary.isEmpty()) DeleteFileW(wide(m_temporary).c_str());
}

bool CLocalWriter::write(const void* data, int bytes) {
  const char* at = static_cast<const char*>(data);
  DWORD left = static_cast<DWORD>(bytes);
  while (left > 0) {
    if (isInterrupted()) return false;
    DWORD done = 0;
    if (!WriteFile(static_cast<HANDLE>(m_handle), at, left, &done, nullptr)) {
      failSys("WriteFile", "CLocalWriter::write");
    }
    at += done;
    left -= done;
  }
  return true;
}

void CLocalWriter::commit() {
  if (!m_owned) return;
  HANDLE handle = static_cast<HANDLE>(m_handle);
  m_handle = nullptr;
  if (!CloseHandle(handle)) failSys("CloseHandle", "CLocalWriter::commit");
  if (!MoveFileExW(wide(m_temporary).c_str(), wide(m_target).c_str(), MOVEFILE_REPLACE_EXISTING)) {
    failSys("MoveFileExW", "CLocalWriter::commit");
  }
  m_temporary = zel::String();
}

VolumeSpace getVolumeSpace(const zel::String& folder) {
  ULARGE_INTEGER available, total, free;
  if (!GetDiskFreeSpaceExW(wide(folder).c_str(), &available, &total, &free)) {
    failSys("GetDiskFreeSpaceExW", "getVolumeSpace");
  }
  VolumeSpace space;
  space.total = static_cast<zel::int64>(total.QuadPart);
  space.free = static_cast<zel::int64>(free.QuadPart);
  space.available = static_cast<zel::int64>(available.QuadPart);
  return space;
}

bool isPrivilegedUser() {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return false;
  TOKEN_ELEVATION elevation{};
  DWORD size = 0;
  const bool elevated =
      GetTokenInformation(token, TokenElevation, &elevation, sizeof(elevation), &size) &&
      elevation.TokenIsElevated != 0;
  CloseHandle(token);
  return elevated;
}

zel::String getUserName() {
  wchar_t name[256];
  DWORD size = 256;
  if (!GetUserNameW(name, &size)) return zel::String("?");
  return zel::String(name);
}

zel::String getUserStateFolder() {
  const wchar_t* folder = _wgetenv(L"LOCALAPPDATA");
  return folder && *folder ? zel::String(folder) : zel::String();
}

}  // namespace zeltool
