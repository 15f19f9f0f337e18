# An emulated register access takes a few nanoseconds, so it matters which way the compiler expects a branch to go.
# GCC knows from counts: a build beside the release build makes them in the usual runs of the program.
if(QFU_COUNT)
    set(QFU_COUNTS ${CMAKE_BINARY_DIR}/counts)
elseif(CMAKE_BUILD_TYPE STREQUAL Release AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    set(counting ${CMAKE_BINARY_DIR}/counting)
    set(QFU_COUNTS ${counting}/counts)
    execute_process(
        COMMAND ${CMAKE_COMMAND} -S ${PROJECT_SOURCE_DIR} -B ${counting} -G ${CMAKE_GENERATOR}
            -D CMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER} -D QFU_COUNT=ON
        OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    add_custom_target(usual_runs_counted
        COMMAND ${CMAKE_COMMAND} --build ${counting} --target counted)
endif()

# Names of counts are those of objects below the build folder, which both builds have in common.
set(counts -fprofile-prefix-path=${CMAKE_BINARY_DIR})
function(heeds_usual_runs target)
    if(QFU_COUNT)
        # Counts fit only what is optimised alike. The rest of that build runs for a moment.
        target_compile_options(${target} PRIVATE SHELL:${CMAKE_CXX_FLAGS_RELEASE} ${counts}
            -fprofile-generate=${QFU_COUNTS})
        target_link_options(${target} INTERFACE -fprofile-generate)
    elseif(TARGET usual_runs_counted)
        # What the runs do not reach is compiled as if there were no counts.
        target_compile_options(${target} PRIVATE ${counts} -fprofile-use=${QFU_COUNTS}
            -fprofile-partial-training)
        add_dependencies(${target} usual_runs_counted)
    endif()
endfunction()
