// Reading the process environment (internal OS step).
#pragma once

#include <vector>

#include "zel/core/string.h"

namespace zel {

// Every "NAME=value" entry of the process environment.
std::vector<String> readEnvironmentImpl();

}  // namespace zel
