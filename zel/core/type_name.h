// Readable (demangled) names of C++ types, for messages.
#pragma once

#include <typeinfo>

#include "zel/core/string.h"

namespace zel {

ZEL_API String getTypeName(const std::type_info& type);

}  // namespace zel
