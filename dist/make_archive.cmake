# Installs the build in BUILD into a fresh folder "qfu" and packs that as ARCHIVE.
set(place ${BUILD}/dist/packed)
file(REMOVE_RECURSE ${place})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${place}/qfu
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_COMMAND} -E tar cf ${ARCHIVE} --format=zip qfu
    WORKING_DIRECTORY ${place} COMMAND_ERROR_IS_FATAL ANY)
message("${ARCHIVE}")
