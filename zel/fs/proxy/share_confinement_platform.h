// The operating-system step of CShareConfinement (internal).
//
// share_confinement.cpp owns the contract (argument checks, the refusal of
// the root, the error texts); the backends (share_confinement_posix.cpp,
// share_confinement_win.cpp) only resolve one path and say where it ended.
#pragma once

#include <atomic>

#include "zel/core/containers.h"
#include "zel/core/string.h"
#include "zel/core/types.h"
#include "zel/fs/proxy/share_confinement.h"

namespace zel::confinement_platform {

enum class Resolution {
  Beneath,  // the path exists and lies beneath the root (or is the root)
  Missing,  // some component does not exist; nothing on the way left the root
  Escapes,  // resolving the path leaves the root (or cannot be judged safely)
};

// components: vetted, non-empty names. followFinal false takes the last
// component as it stands (lstat-like). rootHandle: the root's handle kept
// between calls (-1 while none is open); a backend may open it and store it
// there, once. found (when not null) receives what the path led to (see
// CShareConfinement::Found); it is left as it is where the backend cannot
// tell without another step. Failures of the check itself throw the system
// error with "func" and "action".
Resolution resolve(const String& rootPath, std::atomic<int64>& rootHandle,
                   const TArray<String>& components, bool followFinal,
                   CShareConfinement::Found* found);

// Closes a handle resolve() stored (nothing for -1).
void releaseRoot(int64 rootHandle);

// Linux only (see CShareConfinement::setPortableResolutionForTesting).
void setPortableResolution(bool on);

}  // namespace zel::confinement_platform
