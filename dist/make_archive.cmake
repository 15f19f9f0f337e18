# Writes what is built in BUILD into a fresh folder "qfu" and packs that as ARCHIVE.
set(place ${BUILD}/dist/packed)
file(REMOVE_RECURSE ${place})
set(CMAKE_INSTALL_PREFIX ${place}/qfu)
set(QFU_BUILD ${BUILD})
include(${CMAKE_CURRENT_LIST_DIR}/write_folder.cmake)
execute_process(COMMAND ${CMAKE_COMMAND} -E tar cf ${ARCHIVE} --format=zip qfu
    WORKING_DIRECTORY ${place} COMMAND_ERROR_IS_FATAL ANY)
message("${ARCHIVE}")
