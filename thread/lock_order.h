// The lock order of the library, in one place.
//
// Locks are util::Semaphore objects. When several are held they are taken in
// this order and released in reverse:
//
//   1. webs::DullFileManager::openfsLock
//   2. a DullFile's read lock (the DullFile itself)
//   3. the DullFile's referenceLock
//   4. the BufferQueue's locks: queue lock, then stream lock, then status lock
//
// Always taken alone, never while holding another: the API lock of the C
// interface, the asynchronous request-table lock, a SmartFile's own lock, a
// BufferQueue's reconnection lock, the BufferBlockPoolManager lock (a pool's
// lock is never held while taking it), the ThreadEngine's TaskQueue lock
// (cancel callbacks run under it and must not call back into the engine),
// a ThreadObject's own lock (a RudeTimer takes its own lock, then its
// worker's).
//
// No lock of this list is held while calling libcurl or a client callback,
// except the TaskQueue lock around cancel callbacks, as designed.
#ifndef CORVANE_THREAD_LOCK_ORDER_H_
#define CORVANE_THREAD_LOCK_ORDER_H_
#endif  // CORVANE_THREAD_LOCK_ORDER_H_
