# Builds PE32+ UEFI applications with the mingw-w64 compiler: no C library, no start-up code, and
# relocations, since firmware loads an image wherever there is room. The same sources give the same bytes.
set(CMAKE_SYSTEM_NAME Generic)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-win32)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(QFU_UEFI_IMAGE ON)

set(CMAKE_CXX_FLAGS_INIT
    "-ffreestanding -fno-threadsafe-statics -fno-stack-protector -fno-asynchronous-unwind-tables -mno-red-zone -mno-stack-arg-probe -ffunction-sections -fdata-sections")
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-nostdlib -Wl,--subsystem,10 -Wl,--dynamicbase -Wl,--enable-reloc-section -Wl,--gc-sections -Wl,--no-insert-timestamp -Wl,-s")
