// The firmware's memory pool.
#pragma once

#include "hardware/journal.h"

#include <cstddef>
#include <cstdint>
#include <unordered_map>

namespace emulator {

/// Hands out host memory, so that the host's tools see every access beyond it, and knows what is
/// out.
class MemoryPool {
  public:
    explicit MemoryPool(Journal& journal) : journal_(&journal) {}
    MemoryPool(const MemoryPool&) = delete;
    MemoryPool& operator=(const MemoryPool&) = delete;
    ~MemoryPool();

    /// Memory that holds no zeros by chance; null when the machine has no more.
    void* allocate(std::size_t bytes);

    /// @returns false, and notes misuse, for memory that is not out
    bool free(void* memory);

    std::size_t bytes_out() const { return out_; }
    std::size_t blocks_out() const { return blocks_.size(); }
    std::size_t peak() const { return peak_; }

  private:
    Journal* journal_;
    std::unordered_map<void*, std::size_t> blocks_;
    std::size_t out_ = 0;
    std::size_t peak_ = 0;
};

} // namespace emulator
