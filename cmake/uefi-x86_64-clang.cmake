# UEFI applications for x86-64 by a second compiler. An interrupt of the firmware uses the program's stack right
# behind its end, so there is no red zone.
set(QFU_EFI_ARCH x86_64)
set(QFU_EFI_FLAGS -mno-red-zone)
include(${CMAKE_CURRENT_LIST_DIR}/uefi-clang.cmake)
