#include "pool.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace emulator {

MemoryPool::~MemoryPool() {
    for (const auto& [memory, size] : blocks_) {
        std::free(memory);
    }
}

void* MemoryPool::allocate(std::size_t bytes) {
    constexpr std::size_t kMachineMemory = 128U << 20;
    constexpr int kJunk = 0xAF;
    if (bytes > kMachineMemory - std::min(out_, kMachineMemory)) {
        return nullptr;
    }
    void* memory = std::malloc(bytes == 0 ? 1 : bytes);
    if (memory == nullptr) {
        return nullptr;
    }
    std::memset(memory, kJunk, bytes);
    blocks_.emplace(memory, bytes);
    out_ += bytes;
    peak_ = std::max(peak_, out_);
    return memory;
}

bool MemoryPool::free(void* memory) {
    const auto block = blocks_.find(memory);
    if (block == blocks_.end()) {
        journal_->misuse("pool: memory freed that is not out");
        return false;
    }
    out_ -= block->second;
    blocks_.erase(block);
    std::free(memory);
    return true;
}

} // namespace emulator
