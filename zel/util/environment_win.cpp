#include "zel/internal/win_include.h"
#include "zel/util/environment_platform.h"

namespace zel {

std::vector<String> readEnvironmentImpl() {
  std::vector<String> entries;
  wchar_t* block = GetEnvironmentStringsW();
  if (!block) return entries;
  for (const wchar_t* entry = block; *entry; entry += wcslen(entry) + 1) {
    entries.emplace_back(String(entry));
  }
  FreeEnvironmentStringsW(block);
  return entries;
}

}  // namespace zel
