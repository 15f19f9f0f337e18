# Brings all that the folder is made of up to date, so that an old program never gets onto a stick. QFU_SOURCE
# and QFU_BUILD are the source tree and the build tree that is installed.
function(run_cmake)
    execute_process(COMMAND ${CMAKE_COMMAND} ${ARGN} WORKING_DIRECTORY ${QFU_SOURCE}
        OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
        list(JOIN ARGN " " words)
        message("${output}")
        message(FATAL_ERROR "\"cmake ${words}\" failed in ${QFU_SOURCE}. Nothing was installed.")
    endif()
endfunction()

message(STATUS "Building what the folder is made of")
run_cmake(--preset efi)
run_cmake(--build --preset efi)
run_cmake(--build ${QFU_BUILD} --target chip_list_file man_file)
