#include "zel/ipc/ipc_address.h"

#include "zel/core/error.h"

namespace zel {

namespace {

// Semaphore names live in one flat name space (/dev/shm/sem.<name>): 255
// bytes less the "sem." prefix.
constexpr int kMaxUnixSemaphoreNameBytes = 251;

// Lengths are judged in UTF-8, the file-system encoding of our Linux
// systems, so that the checks give the same answer on every platform (the
// socket code checks the bytes it really uses again).
int encodedLength(const String& text) {
  int length = 0;
  text.toUTF8(&length);
  return length;
}

bool hasSlashOrNul(const String& text) {
  const wchar_t* chars = text.toWChar();
  for (int i = 0; i < text.getLength(); ++i) {
    if (chars[i] == L'/' || chars[i] == 0) return true;
  }
  return false;
}

}  // namespace

CIPCAddress::CIPCAddress() = default;

CIPCAddress::CIPCAddress(const String& appID, const String& name, bool global)
    : m_appID(appID), m_name(name), m_global(global) {}

CIPCAddress::CIPCAddress(const CIPCAddress& other) = default;

CIPCAddress& CIPCAddress::operator=(const CIPCAddress& other) = default;

CIPCAddress::~CIPCAddress() = default;

bool CIPCAddress::isEmpty() const { return m_name.isEmpty(); }

bool CIPCAddress::operator==(const CIPCAddress& other) const {
  return m_global == other.m_global && m_appID == other.m_appID && m_name == other.m_name;
}

String CIPCAddress::formatBaseName(const String& userID) const {
  String result = m_appID + L"_" + m_name;
  if (!m_global) result += L"#" + userID;
  return result;
}

String CIPCAddress::getWindowsPipeName() const {
  return getWindowsPipeName(m_global ? String() : getProcessUserID());
}

String CIPCAddress::getWindowsPipeName(const String& userID) const {
  return formatBaseName(userID);
}

String CIPCAddress::getWindowsSemaphoreName() const {
  return getWindowsSemaphoreName(m_global ? String() : getProcessUserID());
}

String CIPCAddress::getWindowsSemaphoreName(const String& userID) const {
  String name = formatBaseName(userID) + L"##sem";
  return m_global ? L"Global\\" + name : name;
}

String CIPCAddress::getUnixSemaphoreName() const {
  return getUnixSemaphoreName(m_global ? String() : getProcessUserID());
}

String CIPCAddress::getUnixSemaphoreName(const String& userID) const {
  checkUnixNameParts("CIPCAddress::getUnixSemaphoreName");
  if (hasSlashOrNul(userID)) {
    throw CInvalidArgError("CIPCAddress::getUnixSemaphoreName", "the user ID contains '/' or NUL");
  }
  String name = L"/" + formatBaseName(userID) + L"##sem";
  if (encodedLength(name) > kMaxUnixSemaphoreNameBytes) {
    CProps params;
    params.set("name", name);
    throw CInvalidArgError("CIPCAddress::getUnixSemaphoreName",
                           "the semaphore name is longer than 251 bytes", params);
  }
  return name;
}

void CIPCAddress::checkUnixNameParts(const char* function) const {
  if (m_name.isEmpty()) throw CInvalidArgError(function, "the address is empty");
  if (hasSlashOrNul(m_appID) || hasSlashOrNul(m_name)) {
    CProps params;
    params.set("appID", m_appID);
    params.set("name", m_name);
    throw CInvalidArgError(function, "the application ID or name contains '/' or NUL", params);
  }
}

String CIPCAddress::chooseUnixSocketFolder(bool global, const String& runtimeFolder,
                                           const String& userID) {
  if (global) return L"/tmp/zel-ipc-global";
  if (!runtimeFolder.isEmpty()) {
    String folder = runtimeFolder;
    while (folder.getLength() > 1 && folder.safeAt(folder.getLength() - 1) == L'/') {
      folder = String(folder.toWChar(), static_cast<size_t>(folder.getLength() - 1));
    }
    return folder == L"/" ? String(L"/zel-ipc") : folder + L"/zel-ipc";
  }
  return L"/tmp/zel-ipc-" + userID;
}

String CIPCAddress::formatUnixSocketPath(const String& folder) const {
  checkUnixNameParts("CIPCAddress::getUnixSocketPath");
  String path = folder + L"/" + m_appID + L"_" + m_name + L".sock";
  if (encodedLength(path) > kMaxUnixSocketPathBytes) {
    CProps params;
    params.set("path", path);
    throw CInvalidArgError("CIPCAddress::getUnixSocketPath",
                           "the socket path is longer than 107 bytes", params);
  }
  return path;
}

}  // namespace zel
