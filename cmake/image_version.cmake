# The image carries its version where nothing on the console shows it: as text for "strings", and in the
# version fields of the PE header, which have room for two of the three numbers.
configure_file(${CMAKE_CURRENT_LIST_DIR}/image_version.cpp.in ${CMAKE_BINARY_DIR}/image_version.cpp @ONLY)
target_sources(qfu PRIVATE ${CMAKE_BINARY_DIR}/image_version.cpp)
# Nothing refers to the text, so it must be asked for, or it goes with the other unused sections. lld takes GNU's
# options for both, and ignores them.
if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    target_link_options(qfu PRIVATE -Wl,-Xlink=-include:qfu_image_version
        -Wl,-Xlink=-version:${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
else()
    target_link_options(qfu PRIVATE -Wl,--undefined=qfu_image_version
        -Wl,--major-image-version,${PROJECT_VERSION_MAJOR} -Wl,--minor-image-version,${PROJECT_VERSION_MINOR})
endif()
