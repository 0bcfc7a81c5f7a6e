#include "zel/fs/proxy/share_confinement.h"

#include "zel/core/error.h"
#include "zel/fs/proxy/share_confinement_platform.h"

namespace zel {

const char* const CShareConfinement::kEscapeMessage =
    "Proxy path leaves the shared filesystem area.";

namespace {

bool isVettedComponent(const String& component) {
  const wchar_t* text = component.toWChar();
  const int length = component.getLength();
  for (int i = 0; i < length; ++i) {
    const wchar_t c = text[i];
    if (c == L'/' || c == 0) return false;
#ifdef _WIN32
    if (c == L'\\') return false;
#endif
  }
  return true;
}

String joinComponents(const TArray<String>& components) {
  String joined;
  for (const String& component : components) {
    if (!joined.isEmpty()) joined += "/";
    joined += component;
  }
  return joined;
}

}  // namespace

CShareConfinement::CShareConfinement(const String& rootPath) : m_rootPath(rootPath) {}

CShareConfinement::~CShareConfinement() { confinement_platform::releaseRoot(m_rootHandle.load()); }

void CShareConfinement::check(const TArray<String>& components, Target target,
                              Found* found) const {
  bool hasEmpty = false;
  for (const String& component : components) {
    if (component.isEmpty()) {
      hasEmpty = true;
    } else if (!isVettedComponent(component)) {
      throw CInvalidArgError("CShareConfinement::check",
                             "a path component holds a separator or a NUL character");
    }
  }
  // Copied only when there are empty components to skip.
  TArray<String> nonEmpty;
  if (hasEmpty) {
    for (const String& component : components) {
      if (!component.isEmpty()) nonEmpty.add(component);
    }
  }
  const TArray<String>& names = hasEmpty ? nonEmpty : components;

  auto refuse = [&]() {
    CProps params;
    params.set("path", joinComponents(names));
    params.set("rootPath", m_rootPath);
    const CError cause(kEscapeMessage, String(), -1, params);
    throw CFileSystemError(CFileSystemError::ProblemAccessDenied,
                           CError(kEscapeMessage, String(), -1, params, &cause));
  };

  // Removing or replacing the root would let a link take its place.
  if (target == ChangesEntry && names.isEmpty()) refuse();

  if (found) *found = FoundUnknown;
  const confinement_platform::Resolution result =
      confinement_platform::resolve(m_rootPath, m_rootHandle, names, target == FollowLinks, found);
  if (result == confinement_platform::Resolution::Escapes) refuse();
}

bool CShareConfinement::allows(const TArray<String>& components, Target target) const {
  try {
    check(components, target);
    return true;
  } catch (const CError&) {
    return false;
  }
}

void CShareConfinement::setPortableResolutionForTesting(bool on) {
  confinement_platform::setPortableResolution(on);
}

}  // namespace zel
