# Each image carries its version where nothing on the console shows it: as text for "strings", and in the
# version fields of the PE header, which have room for two of the three numbers.
foreach(QFU_PROGRAM qfu flash)
    set(source ${CMAKE_BINARY_DIR}/${QFU_PROGRAM}_image_version.cpp)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/image_version.cpp.in ${source} @ONLY)
    target_sources(${QFU_PROGRAM} PRIVATE ${source})
    # Nothing refers to the text, so it must be asked for, or it goes with the other unused sections. lld takes GNU's
    # options for both, and ignores them.
    if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
        target_link_options(${QFU_PROGRAM} PRIVATE -Wl,-Xlink=-include:image_version
            -Wl,-Xlink=-version:${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
    else()
        target_link_options(${QFU_PROGRAM} PRIVATE -Wl,--undefined=image_version
            -Wl,--major-image-version,${PROJECT_VERSION_MAJOR} -Wl,--minor-image-version,${PROJECT_VERSION_MINOR})
    endif()
endforeach()
