# Builds PE32+ UEFI applications for QFU_EFI_ARCH with clang and lld, with the same properties as those of the
# mingw-w64 compiler. That compiler lends its standard headers: clang has none for firmware.
set(CMAKE_SYSTEM_NAME Generic)
set(CMAKE_SYSTEM_PROCESSOR ${QFU_EFI_ARCH})
set(CMAKE_CXX_COMPILER clang++)
# Plain "windows" would turn on language extensions that the UEFI headers stumble over.
set(CMAKE_CXX_COMPILER_TARGET ${QFU_EFI_ARCH}-unknown-windows-gnu)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(QFU_UEFI_IMAGE ON)

execute_process(COMMAND x86_64-w64-mingw32-g++-win32 -print-file-name=include
    OUTPUT_VARIABLE headers OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
# The last folder adds the basic UEFI types of AArch64, which Debian's gnu-efi for x86-64 lacks.
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${headers}/c++ ${headers}/c++/x86_64-w64-mingw32
    /usr/x86_64-w64-mingw32/include ${CMAKE_CURRENT_LIST_DIR}/efi)
set(CMAKE_CXX_FLAGS_INIT
    "-ffreestanding -fno-threadsafe-statics -fno-stack-protector -fno-asynchronous-unwind-tables -mno-stack-arg-probe -ffunction-sections -fdata-sections ${QFU_EFI_FLAGS}")
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-nostdlib -fuse-ld=lld -Wl,--subsystem,efi_application -Wl,--dynamicbase -Wl,--gc-sections -Wl,--no-insert-timestamp -Wl,-s")
set(QFU_EFI_DRIVER -Wl,--subsystem,efi_boot_service_driver)
