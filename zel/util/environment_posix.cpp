#include "zel/util/environment_platform.h"

extern char** environ;

namespace zel {

std::vector<String> readEnvironmentImpl() {
  std::vector<String> entries;
  for (char** entry = environ; entry && *entry; ++entry) entries.emplace_back(String(*entry));
  return entries;
}

}  // namespace zel
