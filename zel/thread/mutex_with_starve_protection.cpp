#include "zel/thread/mutex_with_starve_protection.h"

namespace zel {

class CMutexWithStarveProtection::CRecord : public CBase {
 public:
  int64 count = 0;
};

CMutexWithStarveProtection::CMutexWithStarveProtection()
    : m_tls(CThreadLocalStorageManager::get()), m_slot(m_tls->createSlot()) {}

CMutexWithStarveProtection::~CMutexWithStarveProtection() = default;

P<CMutexWithStarveProtection::CRecord> CMutexWithStarveProtection::getRecord(bool create) {
  P<CRecord> record = dynamicCast<CRecord>(m_tls->getThreadValue(m_slot));
  if (!record && create) {
    record = createObject<CRecord>();
    m_tls->setThreadValue(m_slot, record.get());
  }
  return record;
}

void CMutexWithStarveProtection::lock() {
  P<CRecord> record = getRecord(true);
  if (record->count == 0) {
    CMutexLock gate(m_gate);
    CMutex::lock();
  }
  ++record->count;
}

bool CMutexWithStarveProtection::tryLock() {
  P<CRecord> record = getRecord(true);
  if (record->count == 0) {
    if (!m_gate.tryLock()) return false;
    bool locked = CMutex::tryLock();
    m_gate.unlock();
    if (!locked) return false;
  }
  ++record->count;
  return true;
}

void CMutexWithStarveProtection::unlock() {
  P<CRecord> record = getRecord(false);
  if (!record || record->count <= 0) return;
  if (record->count == 1) CMutex::unlock();
  --record->count;
}

}  // namespace zel
