#include "platform/MXUser.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string>
#include <vector>

#include "platform/Log.h"

struct MXUserRWLock {
  std::string name;
  uint32_t rank;
  std::shared_mutex mutex;
  // Set by the writer so release knows which side to unlock; a reader never
  // sees it set while it holds the lock.
  bool write_held = false;
};

struct MXUserExclLock {
  std::string name;
  uint32_t rank;
  std::mutex mutex;
};

namespace {

struct HeldLock {
  const void* lock;
  const std::string* name;
  uint32_t rank;
};

thread_local std::vector<HeldLock> t_held;

void CheckRank(const void* lock, const std::string& name, uint32_t rank) {
#ifdef WITNESSD_LOCK_RANK_CHECKS
  if (rank == kRankUnranked) {
    return;
  }
  for (const HeldLock& held : t_held) {
    if (held.rank != kRankUnranked && held.rank >= rank) {
      Panic("MXUser: lock rank violation: acquiring '%s' (rank 0x%x) while holding '%s' (rank 0x%x)\n",
            name.c_str(), rank, held.name->c_str(), held.rank);
    }
  }
#else
  (void)lock;
  (void)name;
  (void)rank;
#endif
}

void NoteAcquired(const void* lock, const std::string* name, uint32_t rank) {
  t_held.push_back({lock, name, rank});
}

void NoteReleased(const void* lock) {
  auto it = std::find_if(t_held.rbegin(), t_held.rend(),
                         [lock](const HeldLock& h) { return h.lock == lock; });
  if (it != t_held.rend()) {
    t_held.erase(std::next(it).base());
  }
}

}  // namespace

MXUserRWLock* MXUser_CreateRWLock(const char* name, uint32_t rank) {
  auto* lock = new (std::nothrow) MXUserRWLock;
  if (lock != nullptr) {
    lock->name = name;
    lock->rank = rank;
  }
  return lock;
}

void MXUser_DestroyRWLock(MXUserRWLock* lock) {
  delete lock;
}

void MXUser_AcquireForRead(MXUserRWLock* lock) {
  CheckRank(lock, lock->name, lock->rank);
  lock->mutex.lock_shared();
  NoteAcquired(lock, &lock->name, lock->rank);
}

void MXUser_AcquireForWrite(MXUserRWLock* lock) {
  CheckRank(lock, lock->name, lock->rank);
  lock->mutex.lock();
  lock->write_held = true;
  NoteAcquired(lock, &lock->name, lock->rank);
}

void MXUser_ReleaseRWLock(MXUserRWLock* lock) {
  NoteReleased(lock);
  if (lock->write_held) {
    lock->write_held = false;
    lock->mutex.unlock();
  } else {
    lock->mutex.unlock_shared();
  }
}

bool MXUser_IsCurThreadHoldingRWLock(MXUserRWLock* lock) {
  return std::any_of(t_held.begin(), t_held.end(), [lock](const HeldLock& h) { return h.lock == lock; });
}

MXUserExclLock* MXUser_CreateExclLock(const char* name, uint32_t rank) {
  auto* lock = new (std::nothrow) MXUserExclLock;
  if (lock != nullptr) {
    lock->name = name;
    lock->rank = rank;
  }
  return lock;
}

void MXUser_DestroyExclLock(MXUserExclLock* lock) {
  delete lock;
}

void MXUser_AcquireExclLock(MXUserExclLock* lock) {
  CheckRank(lock, lock->name, lock->rank);
  lock->mutex.lock();
  NoteAcquired(lock, &lock->name, lock->rank);
}

void MXUser_ReleaseExclLock(MXUserExclLock* lock) {
  NoteReleased(lock);
  lock->mutex.unlock();
}
