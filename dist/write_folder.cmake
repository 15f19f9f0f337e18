# Writes the folder, whole or not at all: every file is first copied beside its place, and takes it only
# when all are there. Files that a person has put into the folder stay. QFU_BUILD is the build tree,
# QFU_PRESET the one that built the programs.
include(${QFU_BUILD}/dist/parts.cmake)
set(folder "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}")
set(next "${folder}/qfu.new")

# Gives up for the reason behind it, unless a file operation had the result 0.
function(check result)
    if(NOT result EQUAL 0)
        file(REMOVE_RECURSE "${next}")
        if(is_new)
            file(REMOVE_RECURSE "${folder}")
        endif()
        message(FATAL_ERROR "${ARGN}")
    endif()
endfunction()

set(is_new TRUE)
if(EXISTS "${folder}")
    set(is_new FALSE)
endif()

set(sums "")
foreach(name IN LISTS QFU_PARTS)
    if(EXISTS "${QFU_PART_${name}}")
        file(SHA256 "${QFU_PART_${name}}" sum)
        string(APPEND sums "${sum}  ${name}\n")
    endif()
endforeach()
file(WRITE "${QFU_BUILD}/dist/SHA256SUMS" "${sums}")
set(QFU_PART_SHA256SUMS "${QFU_BUILD}/dist/SHA256SUMS")

foreach(name IN LISTS QFU_PARTS ITEMS SHA256SUMS)
    get_filename_component(directory "${next}/${name}" DIRECTORY)
    file(MAKE_DIRECTORY "${directory}")
    # CMake's own copying sets permissions, which a mounted stick may refuse.
    execute_process(COMMAND cp "${QFU_PART_${name}}" "${next}/${name}" RESULT_VARIABLE result ERROR_VARIABLE why)
    check("${result}" "Nothing was installed. ${why}")
endforeach()
foreach(name IN LISTS QFU_PARTS ITEMS SHA256SUMS)
    get_filename_component(directory "${folder}/${name}" DIRECTORY)
    file(MAKE_DIRECTORY "${directory}")
    file(RENAME "${next}/${name}" "${folder}/${name}" RESULT result)
    check("${result}" "The folder is not whole, install it again. ${folder}/${name}: ${result}")
endforeach()
file(REMOVE_RECURSE "${next}")
message(STATUS "Installed: ${folder}")
