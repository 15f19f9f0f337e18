# Writes what is built in BUILD into a fresh folder "qfu" for each processor, and packs them as ARCHIVE-x64.zip and
# ARCHIVE-aa64.zip. Firmware has these names of processors in its boot files: BOOTX64.EFI, BOOTAA64.EFI.
set(place ${BUILD}/dist/packed)
set(CMAKE_INSTALL_PREFIX ${place}/qfu)
set(QFU_BUILD ${BUILD})
set(processors x64 aa64)
set(presets efi efi-aarch64)
foreach(processor QFU_PRESET IN ZIP_LISTS processors presets)
    file(REMOVE_RECURSE ${place})
    include(${CMAKE_CURRENT_LIST_DIR}/write_folder.cmake)
    execute_process(COMMAND ${CMAKE_COMMAND} -E tar cf ${ARCHIVE}-${processor}.zip --format=zip qfu
        WORKING_DIRECTORY ${place} COMMAND_ERROR_IS_FATAL ANY)
    message("${ARCHIVE}-${processor}.zip")
endforeach()
