#include "zel/internal/win_include.h"
#include "zel/core/mutex.h"

namespace zel {

namespace {
CRITICAL_SECTION* native(void* storage) { return static_cast<CRITICAL_SECTION*>(storage); }
}  // namespace

static_assert(sizeof(CRITICAL_SECTION) <= 40 && alignof(CRITICAL_SECTION) <= 8);

CMutex::CMutex() { InitializeCriticalSection(new (m_storage) CRITICAL_SECTION); }
CMutex::~CMutex() { DeleteCriticalSection(native(m_storage)); }

void CMutex::lock() { EnterCriticalSection(native(m_storage)); }
void CMutex::unlock() { LeaveCriticalSection(native(m_storage)); }
bool CMutex::tryLock() { return TryEnterCriticalSection(native(m_storage)) != 0; }

}  // namespace zel
