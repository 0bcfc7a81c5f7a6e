// The operating-system slot behind CThreadLocalStorageManager (internal): one
// pointer per thread, with a hook that frees it when the thread exits.
#pragma once

#include <unordered_map>

#include "zel/core/base.h"

namespace zel::tls_platform {

using ThreadValues = std::unordered_map<int, P<IBase>>;

ThreadValues* getThreadValues();
void setThreadValues(ThreadValues* values);
// Called by the system when a thread with a map exits; defined portably.
void onThreadExit(ThreadValues* values);

}  // namespace zel::tls_platform
