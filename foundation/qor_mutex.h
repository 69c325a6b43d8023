// qorMutexLocker: a scoped lock on a QMutex that ThreadSanitizer understands.
//
// Qt's contended lock and unlock paths run inside libQt5Core, which is not
// instrumented, so ThreadSanitizer would not see the ordering they give. In a
// ThreadSanitizer build the locker tells it about the acquire and release
// itself; in every other build it is exactly QMutexLocker.
#ifndef QOR_MUTEX_H
#define QOR_MUTEX_H

#include <QMutex>

#include "qor_export.h"

#if defined(__SANITIZE_THREAD__)
#define QOR_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QOR_TSAN 1
#endif
#endif

#ifdef QOR_TSAN
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
#endif

//
// Mutex is QMutex or, for a mutex that must be constant-initialised and
// trivially destroyed (no code at load or unload), QBasicMutex; the type is
// deduced from the argument: qorMutexLocker lock(mutex).
template <typename Mutex = QMutex>
class qorMutexLocker {
 public:
  explicit qorMutexLocker(Mutex& mutex) : m_Mutex(mutex) {
    m_Mutex.lock();
#ifdef QOR_TSAN
    __tsan_acquire(&m_Mutex);
#endif
  }
  ~qorMutexLocker() {
#ifdef QOR_TSAN
    __tsan_release(&m_Mutex);
#endif
    m_Mutex.unlock();
  }
  qorMutexLocker(const qorMutexLocker&) = delete;
  qorMutexLocker& operator=(const qorMutexLocker&) = delete;

 private:
  Mutex& m_Mutex;
};

#endif
