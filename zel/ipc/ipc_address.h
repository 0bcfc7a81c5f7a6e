// CIPCAddress: the name of an inter-process endpoint, independent of the
// transport. An address is (application ID, name, global flag); each
// transport derives its own endpoint name from it.
//
// Per-user and global addresses: a per-user address ("global" false) names an
// endpoint of the calling user only; two users with the same address get
// different endpoints and cannot reach each other's. A global address is the
// same for every user of the machine.
//
// Endpoint names ("<userID>" is getProcessUserID(): the process owner's SID
// string on Windows, the effective uid in decimal on Linux):
//   getWindowsPipeName       <appID>_<name>            global
//                            <appID>_<name>#<userID>   per-user
//                            (the pipe path is "\\.\pipe\" + this name)
//   getWindowsSemaphoreName  Global\<appID>_<name>##sem          global
//                            <appID>_<name>#<userID>##sem        per-user
//   getUnixSemaphoreName     /<appID>_<name>##sem                global
//                            /<appID>_<name>#<userID>##sem       per-user
//   getUnixSocketPath        <folder>/<appID>_<name>.sock, where <folder> is
//     per-user: $XDG_RUNTIME_DIR/zel-ipc when XDG_RUNTIME_DIR (as the process
//               started) is an absolute path to a real folder owned by the
//               user that no one else may write to, else
//               /tmp/zel-ipc-<uid>; the folder has mode 0700 and
//               belongs to the user, so nobody else can reach the sockets in
//               it or plant one there;
//     global:   /tmp/zel-ipc-global, mode 1777 like /tmp (anyone may create a
//               socket, only its owner may remove it). Whoever created the
//               folder owns it and could remove sockets in it too: a global
//               server should run as root or find the folder made by root.
//   Processes of one user meet only when they agree on XDG_RUNTIME_DIR (a
//   login session and a cron job may not); the fallback keeps the per-user
//   guarantees either way.
//
// getUnixSocketPath(createFolder): an existing folder is always checked with
// lstat (no symbolic links): it must be a folder; per-user it must belong to
// the user with mode exactly 0700, global it must have mode 1777. A folder
// that fails the check is refused with CError (domain "errno", EPERM or
// ENOTDIR, property "folder"). A missing folder is created when createFolder
// is true (with exactly those modes, whatever the umask) and otherwise left
// missing (the path is still returned; connecting to it finds no server).
// On Windows the Unix names are formatted the same way (the folder being
// /tmp/zel-ipc-<userID>), and createFolder true throws CNotImplementedError.
//
// Text checks, for the Unix names only (Windows names are formatted as they
// are and the system judges them): an application ID or name containing "/"
// or NUL, an empty name, a socket path longer than 107 bytes (the size of
// sockaddr_un's sun_path less its terminator) and a semaphore name longer
// than 251 bytes raise CInvalidArgError. Lengths are counted in UTF-8, the
// file-system encoding of our Linux systems, so that both platforms give the
// same answers; the socket code checks the bytes it really passes again.
//
// CIPCAddress is a value: it can be copied and compared; it is not
// synchronised.
#pragma once

#include "zel/core/base.h"
#include "zel/core/export.h"
#include "zel/core/string.h"

namespace zel {

class ZEL_API CIPCAddress : public CBase {
 public:
  // The empty address (no application ID, no name, per-user).
  CIPCAddress();
  CIPCAddress(const String& appID, const String& name, bool global);
  CIPCAddress(const CIPCAddress& other);
  CIPCAddress& operator=(const CIPCAddress& other);
  ~CIPCAddress() override;

  const String& getAppID() const { return m_appID; }
  const String& getName() const { return m_name; }
  bool getGlobal() const { return m_global; }
  // True when there is no name.
  bool isEmpty() const;

  // All three parts compare exactly (with case).
  bool operator==(const CIPCAddress& other) const;
  bool operator!=(const CIPCAddress& other) const { return !(*this == other); }

  String getWindowsPipeName() const;
  String getWindowsSemaphoreName() const;
  String getUnixSocketPath(bool createFolder) const;
  String getUnixSemaphoreName() const;

  // The same names for a given user ID text instead of the process owner's
  // (per-user addresses; global ones ignore it).
  String getWindowsPipeName(const String& userID) const;
  String getWindowsSemaphoreName(const String& userID) const;
  String getUnixSemaphoreName(const String& userID) const;

  // The text form of the process owner's user ID (see above). Throws a
  // system error when the system cannot tell.
  static String getProcessUserID();

  // The folder of the sockets: runtimeFolder is XDG_RUNTIME_DIR when it
  // qualifies (see above) and empty otherwise; userID is the uid text.
  static String chooseUnixSocketFolder(bool global, const String& runtimeFolder,
                                       const String& userID);
  // folder + "/" + the socket file name of this address, with the text and
  // length checks above; nothing is looked up or created.
  String formatUnixSocketPath(const String& folder) const;

 private:
  // "<appID>_<name>", plus "#<userID>" when per-user.
  String formatBaseName(const String& userID) const;
  void checkUnixNameParts(const char* function) const;

  String m_appID;
  String m_name;
  bool m_global = false;
};

// Longest socket path in bytes (sockaddr_un's sun_path less the terminator).
inline constexpr int kMaxUnixSocketPathBytes = 107;

// Checks a socket folder as getUnixSocketPath does and creates it when it is
// missing and create is true. Linux only (Windows: CNotImplementedError).
ZEL_API void checkUnixSocketFolder(const String& folder, bool global, bool create);

}  // namespace zel
