# UEFI applications for AArch64.
set(QFU_EFI_ARCH aarch64)
set(QFU_EFI_FLAGS "")
include(${CMAKE_CURRENT_LIST_DIR}/uefi-clang.cmake)
