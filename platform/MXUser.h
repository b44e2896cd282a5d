// Ranked locks. A thread may only acquire a lock whose rank is above the rank
// of every ranked lock it already holds; builds with WITNESSD_LOCK_RANK_CHECKS
// panic on a violation. Rank 0 (kRankUnranked) opts a lock out of the check.
#pragma once

#include <cstdint>

inline constexpr uint32_t kRankUnranked = 0;

struct MXUserRWLock;
struct MXUserExclLock;

// Creation returns nullptr only if memory runs out.
MXUserRWLock* MXUser_CreateRWLock(const char* name, uint32_t rank);
void MXUser_DestroyRWLock(MXUserRWLock* lock);
void MXUser_AcquireForRead(MXUserRWLock* lock);
void MXUser_AcquireForWrite(MXUserRWLock* lock);
void MXUser_ReleaseRWLock(MXUserRWLock* lock);
// MXUser_IsCurThreadHoldingRWLock tells whether the calling thread holds
// |lock|, shared or exclusive.
bool MXUser_IsCurThreadHoldingRWLock(MXUserRWLock* lock);

MXUserExclLock* MXUser_CreateExclLock(const char* name, uint32_t rank);
void MXUser_DestroyExclLock(MXUserExclLock* lock);
void MXUser_AcquireExclLock(MXUserExclLock* lock);
void MXUser_ReleaseExclLock(MXUserExclLock* lock);

namespace MXUser {

// Scoped holders for the locks above.
class ReadGuard {
 public:
  explicit ReadGuard(MXUserRWLock* lock) : lock_(lock) { MXUser_AcquireForRead(lock_); }
  ~ReadGuard() { MXUser_ReleaseRWLock(lock_); }
  ReadGuard(const ReadGuard&) = delete;
  ReadGuard& operator=(const ReadGuard&) = delete;

 private:
  MXUserRWLock* lock_;
};

class WriteGuard {
 public:
  explicit WriteGuard(MXUserRWLock* lock) : lock_(lock) { MXUser_AcquireForWrite(lock_); }
  ~WriteGuard() { MXUser_ReleaseRWLock(lock_); }
  WriteGuard(const WriteGuard&) = delete;
  WriteGuard& operator=(const WriteGuard&) = delete;

 private:
  MXUserRWLock* lock_;
};

class ExclGuard {
 public:
  explicit ExclGuard(MXUserExclLock* lock) : lock_(lock) { MXUser_AcquireExclLock(lock_); }
  ~ExclGuard() { MXUser_ReleaseExclLock(lock_); }
  ExclGuard(const ExclGuard&) = delete;
  ExclGuard& operator=(const ExclGuard&) = delete;

 private:
  MXUserExclLock* lock_;
};

}  // namespace MXUser
