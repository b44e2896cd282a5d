// The memory of one connection's asynchronous operations, recycled: the
// allocator the connection's completion handlers carry.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <new>
#include <utility>

namespace Witnessd::AttestApi {

// HandlerMemory recycles the memory of one connection's asynchronous
// operations: the same few blocks serve every read and write, so a warm
// connection allocates nothing for them. A block is freed by whichever I/O
// thread completes its operation, hence the atomic flags.
class HandlerMemory {
 public:
  HandlerMemory() = default;
  HandlerMemory(const HandlerMemory&) = delete;
  HandlerMemory& operator=(const HandlerMemory&) = delete;

  void* Allocate(size_t size) {
    for (Block& b : blocks_) {
      if (size <= sizeof(b.storage) && !b.used.exchange(true, std::memory_order_acquire)) {
        return b.storage;
      }
    }
    return ::operator new(size);
  }

  void Deallocate(void* p) {
    for (Block& b : blocks_) {
      if (p == b.storage) {
        b.used.store(false, std::memory_order_release);
        return;
      }
    }
    ::operator delete(p);
  }

 private:
  // Four blocks cover what a connection has in flight at once: a read or a
  // write, the deadline's wait and one it replaced, and an answer posted
  // back to the strand.
  struct Block {
    alignas(std::max_align_t) unsigned char storage[1024];
    std::atomic<bool> used{false};
  };
  std::array<Block, 4> blocks_;
};

template <typename T>
class HandlerAllocator {
 public:
  using value_type = T;
  explicit HandlerAllocator(HandlerMemory* memory) : memory_(memory) {}
  template <typename U>
  HandlerAllocator(const HandlerAllocator<U>& other) : memory_(other.memory_) {}  // implicit: asio rebinds
  T* allocate(size_t n) { return static_cast<T*>(memory_->Allocate(sizeof(T) * n)); }
  void deallocate(T* p, size_t) { memory_->Deallocate(p); }
  bool operator==(const HandlerAllocator& other) const { return memory_ == other.memory_; }
  bool operator!=(const HandlerAllocator& other) const { return memory_ != other.memory_; }

 private:
  template <typename>
  friend class HandlerAllocator;
  HandlerMemory* memory_;
};

// WithMemory gives |handler| the connection's recycled memory for the
// operations it completes.
template <typename Handler>
class WithMemory {
 public:
  using allocator_type = HandlerAllocator<char>;
  WithMemory(HandlerMemory* memory, Handler handler) : memory_(memory), handler_(std::move(handler)) {}
  allocator_type get_allocator() const noexcept { return allocator_type(memory_); }
  template <typename... Args>
  void operator()(Args&&... args) {
    handler_(std::forward<Args>(args)...);
  }

 private:
  HandlerMemory* memory_;
  Handler handler_;
};

}  // namespace Witnessd::AttestApi
