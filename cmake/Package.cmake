# `cpack -G DEB` in a build folder: one Debian package with everything that `cmake --install` installs.
set(CPACK_PACKAGE_NAME tavi-io)
set(CPACK_PACKAGE_VENDOR "TaviIO maintainers")
set(CPACK_PACKAGE_CONTACT "TaviIO maintainers <maintainers@tavi-io.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "device plug-in and tools for a colour-measuring scanning table")
set(CPACK_STRIP_FILES ON)
# Whatever the umask of the build is.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Measures printed colour charts with an X/Y scanning table that carries a
handheld spectrophotometer: the device service and its plug-in, the program
tablectl, the Python package vell_device, and the headers and libraries for
clients of one's own.
.
A virtual table is built in, so everything can be tried without the hardware.")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "python3 (>= 3.9)") # of the package for scripts
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/cmake/debian/triggers
    ${PROJECT_SOURCE_DIR}/cmake/debian/postinst
    ${PROJECT_SOURCE_DIR}/cmake/debian/prerm
    ${PROJECT_BINARY_DIR}/shlibs)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/arrange.cmake)

# What a package of a client depends on.
set(shlibs "")
foreach(library PlatformBase PlatformFoundation TaviSDK VellDevice)
    string(APPEND shlibs "lib${library} ${PROJECT_VERSION_MAJOR} ${CPACK_PACKAGE_NAME} (>= ${PROJECT_VERSION})\n")
endforeach()
file(WRITE ${PROJECT_BINARY_DIR}/shlibs "${shlibs}")

include(CPack)
