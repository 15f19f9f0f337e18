# The newest release in the changelog is the project's version, and its date is the one of all that is dated.
file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md releases REGEX "^## [0-9]")
list(POP_FRONT releases newest)
if(NOT newest MATCHES "^## ([0-9]+\\.[0-9]+\\.[0-9]+) - ([0-9]+-[0-9]+-[0-9]+)$")
    message(FATAL_ERROR "CHANGELOG.md: \"${newest}\" must be a release like \"## 1.2.3 - 2026-01-31\"")
endif()
set(QFU_RELEASE_DATE ${CMAKE_MATCH_2})
if(NOT CMAKE_MATCH_1 VERSION_EQUAL PROJECT_VERSION)
    message(FATAL_ERROR "CHANGELOG.md: the newest release is ${CMAKE_MATCH_1}, "
        "but CMakeLists.txt says VERSION ${PROJECT_VERSION}")
endif()
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS CHANGELOG.md)
# flash prints a version of its own, which an EDK II tree builds without CMake.
set(version_file ${PROJECT_SOURCE_DIR}/ShellPkg/Application/flash/version.h)
file(STRINGS ${version_file} version REGEX "VERSION")
if(NOT version MATCHES "\"${PROJECT_VERSION}\"")
    message(FATAL_ERROR "${version_file} must say ${PROJECT_VERSION}, as CMakeLists.txt does, not:${version}")
endif()
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${version_file})
