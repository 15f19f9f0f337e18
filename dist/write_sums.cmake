# Writes SHA256SUMS beside the installed files, for "sha256sum -c".
set(folder "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}")
set(sums "")
foreach(name IN LISTS QFU_FOLDER_FILES)
    file(SHA256 "${folder}/${name}" sum)
    string(APPEND sums "${sum}  ${name}\n")
endforeach()
file(WRITE "${folder}/SHA256SUMS" "${sums}")
