# What CPack makes of the component "host": one Debian package.
set(QFU_DEBIAN_RELEASE 1)
execute_process(COMMAND date -u -d ${QFU_RELEASE_DATE} "+%a, %d %b %Y 00:00:00 +0000"
    OUTPUT_VARIABLE QFU_DEBIAN_DATE OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(CPACK_PACKAGE_CONTACT "the qfu authors <qfu@localhost>" CACHE STRING "Who answers for the package")
configure_file(debian_changelog.in changelog.Debian @ONLY)
execute_process(COMMAND gzip -9nf changelog.Debian WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
    COMMAND_ERROR_IS_FATAL ANY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz DESTINATION ${CMAKE_INSTALL_DOCDIR}
    COMPONENT debian EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL host debian)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_SOURCE_DIR}/build)
set(CPACK_STRIP_FILES ON)
# Directories of a package are not writable for a group, whatever the umask of the build.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${QFU_DEBIAN_RELEASE})
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "qemu-system-x86, ovmf")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "emulator and chip list tools for the flash utility qfu")
set(CPACK_PACKAGE_DESCRIPTION "\
qfu programs the flash chips of PCI storage adapters from the UEFI shell.
This package holds the tools around it for a Linux machine.
.
qfu-emu runs qfu in a process, on adapters and chips that a text file
describes. qfu-qemu puts the same adapters into a QEMU guest. qfu-serprog serves an
SPI flash chip to flashrom. spilist builds, checks and shows the
chip lists that qfu reads. qfu-job checks unattended jobs and reads what
machines say about them.")
include(CPack)
