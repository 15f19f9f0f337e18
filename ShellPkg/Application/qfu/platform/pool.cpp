#include "pool.h"

#include "system.h"

namespace platform {

void* pool_take(std::size_t bytes) {
    void* memory = nullptr;
    if (system().boot->AllocatePool(EfiBootServicesData, bytes, &memory) != EFI_SUCCESS) {
        return nullptr;
    }
    system().boot->SetMem(memory, bytes, 0);
    return memory;
}

void pool_give_back(void* memory) {
    if (memory != nullptr) {
        system().boot->FreePool(memory);
    }
}

} // namespace platform
