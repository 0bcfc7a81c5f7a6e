// CShareConfinement: keeps the operations of a file-system server inside the
// folder it shares, wherever the symbolic links (and, on Windows, junctions)
// inside that folder point.
//
// The server confines a URI by its text first (it refuses ".." and similar
// segments). What the text cannot show is where the operating system will
// take the path once it follows the links on the way; check() asks the
// system. It is given the path's components relative to the root folder and
// how the coming operation treats the last component:
//   FollowLinks   the operation follows a final link (open, stat, create
//                 through a dangling link, mkdir ...): the whole path is
//                 resolved, a final link included.
//   LinkItself    the operation acts on the entry itself (lstat, readlink,
//                 and Linux link(2), which does not follow its target): every
//                 component but the last is resolved, the last is taken as
//                 it stands.
//   ChangesEntry  as LinkItself, for operations that remove, replace or
//                 rename the entry. The root itself is refused here, so that
//                 a client can never delete the shared folder and put a link
//                 in its place.
// Components that do not exist are fine: the operation itself then reports
// "not found", or creates them. Empty components are skipped (the systems
// merge repeated separators). A component holding a separator or a NUL
// character is refused with CInvalidArgError: the caller must vet the path
// first.
//
// Links that lead out are never followed and never described: an operation
// that would follow one is refused, and a server describing entries rather
// than opening them (file information without following links, folder
// listings) asks allows(components, FollowLinks) for each link it describes
// and, when that is false, reports the link as one whose target is unknown
// (see proxy_file_system_server.h), so that nothing a client sees depends on
// what lies outside.
//
// A path that leaves the root is refused with a CFileSystemError of
// ProblemAccessDenied, message "Proxy path leaves the shared filesystem
// area.", whose cause is a CError (no code) with the same message and the
// parameters "path" (the components joined with "/") and "rootPath". Any
// other failure of the check itself (out of descriptors, no permission to
// search a folder ...) is thrown as the system error, so a check that cannot
// be made never lets the operation through.
//
// Platforms:
//   Linux    openat2(2) relative to the root with RESOLVE_BENEATH and
//            RESOLVE_NO_MAGICLINKS: the kernel stops (EXDEV) at absolute
//            links and ".." that would climb above the root, and at /proc
//            magic links (ELOOP, as for a link loop); such paths get the
//            second look described under "Absolute links" below. Kernels
//            without openat2 (before 5.6, or a sandbox that hides it) get the
//            portable method: the real path (realpath) of the deepest
//            existing ancestor must lie under the root's real path; a final
//            link whose target is missing cannot be judged that way and is
//            refused when followed.
//   Windows  the path is opened with no access rights and
//            FILE_FLAG_BACKUP_SEMANTICS (plus FILE_FLAG_OPEN_REPARSE_POINT
//            for the entry itself), and its final path
//            (GetFinalPathNameByHandleW) must be the root's final path or lie
//            below it, compared without case on whole components. A missing
//            entry is judged by its nearest existing ancestor; a final link
//            whose target is missing cannot be resolved and is refused when
//            followed. Wine has no real symbolic links, so there only plain
//            paths are exercised.
//
// Linux keeps the root's descriptor (O_PATH) from the first check that finds
// the root until the confinement is destroyed, so a check costs one openat2.
// A single name that is not "." or ".." costs one fstatat relative to that
// descriptor, without following a final link: an entry directly in the root
// that is not a link lies beneath it, and only a link needs the openat2.
// A root that is missing at first is looked for again at every check. When a
// check finds a component missing, the root path is compared with the kept
// descriptor; if another folder has taken its place since, that folder is
// checked (opened for that check alone) - it is what the operation will
// reach. A root moved away with an entry of the same name still there is
// not seen: that is the race below. Windows opens the root for each check.
//
// Absolute links: RESOLVE_BENEATH refuses every absolute link and every
// ".." above the root, even one whose end lies inside the share again. Such
// a refusal is checked once more the plain way: the path is opened (O_PATH)
// relative to the root, following links as the operation will, and the real
// path of what was opened (its /proc/self/fd entry) must lie beneath the
// root's real path; a path that is missing on the way is judged by the
// portable method. So absolute links between places of the share work, links
// leaving it stay refused. Past such a stop a failure of the check itself
// (no permission to search a folder outside the share ...) counts as leaving
// the root, so that the answer never tells a client more about outside
// places than that they are outside.
//
// Race: checking and operating are two steps. Another party writing in the
// same folder (another connection, a local program) could replace a checked
// folder by a link between them. The check narrows that window but cannot
// close it; closing it would need every operation of the served file system
// to work relative to the checked descriptor.
//
// Thread safety: check() may be called from several threads at once.
#pragma once

#include <atomic>

#include "zel/core/base.h"
#include "zel/core/containers.h"
#include "zel/core/export.h"
#include "zel/core/string.h"
#include "zel/core/types.h"

namespace zel {

class ZEL_API CShareConfinement : public CBase {
 public:
  enum Target {
    FollowLinks,
    LinkItself,
    ChangesEntry,
  };

  // rootPath: the shared folder as a native absolute path. It need not exist
  // yet; while it is missing, every path below it counts as missing.
  explicit CShareConfinement(const String& rootPath);
  ~CShareConfinement() override;

  const String& getRootPath() const { return m_rootPath; }

  // What a check found at the end of the path: the entry it resolved (the
  // target of a final link for FollowLinks, the entry itself otherwise), or
  // FoundNothing when a component is missing. FoundUnknown where the check
  // cannot tell without another step: on Windows, and on Linux where the
  // path was judged by real paths (the portable method). An existence check
  // of the local file system can take the answer from here instead of
  // looking up the path once more.
  enum Found {
    FoundUnknown,
    FoundNothing,
    FoundFile,
    FoundFolder,
    FoundOther,
  };

  // Throws as described above when components (relative to the root) do not
  // stay beneath it for an operation of the given kind. found (when not
  // null) receives what the check found.
  void check(const TArray<String>& components, Target target, Found* found = nullptr) const;
  // As check(), answering instead of throwing: false wherever check() throws
  // (a path that leaves the root, one that cannot be judged, components that
  // are not names).
  bool allows(const TArray<String>& components, Target target) const;

  // The message of the refusal.
  static const char* const kEscapeMessage;

  // Linux: use the portable method even where openat2 exists, so that tests
  // reach it. No effect on Windows.
  static void setPortableResolutionForTesting(bool on);

 private:
  String m_rootPath;
  // The root's handle while kept (Linux), else -1.
  mutable std::atomic<int64> m_rootHandle{-1};
};

}  // namespace zel
