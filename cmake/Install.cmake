# Where `cmake --install` puts things. What is installed finds the rest by relative paths, so that a whole tree can be
# moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TAVI_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/vell)
set(TAVI_INSTALL_DOCDIR ${CMAKE_INSTALL_DATADIR}/doc/tavi-io)
set(TAVI_INSTALL_PYTHONDIR lib/python3/dist-packages)
set(TAVI_INSTALL_BUNDLEDIR lib/TaviIO.bundle/Contents) # where the programs look for it, beside their own folder

# A loader's search path, to the libraries from where a file is: `built` in the build tree, `folder` below the prefix.
function(tavi_library_path variable built folder)
    cmake_path(ABSOLUTE_PATH folder BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} OUTPUT_VARIABLE installed)
    set(search "")
    foreach(way ${built}|${CMAKE_LIBRARY_OUTPUT_DIRECTORY} ${installed}|${CMAKE_INSTALL_FULL_LIBDIR})
        string(REPLACE "|" ";" way ${way})
        list(GET way 0 from)
        list(GET way 1 to)
        cmake_path(RELATIVE_PATH to BASE_DIRECTORY ${from})
        string(REGEX REPLACE "/$" "" to ${to})
        list(APPEND search $ORIGIN/${to})
    endforeach()
    list(REMOVE_DUPLICATES search)
    set(${variable} "${search}" PARENT_SCOPE)
endfunction()

# One path for both trees. Of its own accord CMake leaves an empty entry in the build tree's, and a loader takes that
# for the current folder.
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
tavi_library_path(CMAKE_INSTALL_RPATH ${CMAKE_RUNTIME_OUTPUT_DIRECTORY} ${CMAKE_INSTALL_BINDIR})

# A library of the platform that clients and plug-ins link, with those of its headers that are for them.
#   tavi_install_library(TARGET NAME name-for-clients HEADERS a.h ...)
function(tavi_install_library target)
    cmake_parse_arguments(ARG "" "NAME" "HEADERS" ${ARGN})
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        EXPORT_NAME ${ARG_NAME}
        INSTALL_RPATH $ORIGIN)
    target_compile_features(${target} INTERFACE cxx_std_11)
    install(TARGETS ${target} EXPORT VellDeviceTargets INCLUDES DESTINATION ${TAVI_INSTALL_INCLUDEDIR})
    get_filename_component(folder ${CMAKE_CURRENT_SOURCE_DIR} NAME)
    install(FILES ${ARG_HEADERS} DESTINATION ${TAVI_INSTALL_INCLUDEDIR}/${folder})
endfunction()

# The CMake package: find_package(VellDevice) in a client or a plug-in.
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/VellDevice)
configure_package_config_file(cmake/VellDeviceConfig.cmake.in VellDeviceConfig.cmake INSTALL_DESTINATION ${package})
write_basic_package_version_file(VellDeviceConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT VellDeviceTargets NAMESPACE VellDevice:: DESTINATION ${package})
install(FILES
    ${PROJECT_BINARY_DIR}/VellDeviceConfig.cmake
    ${PROJECT_BINARY_DIR}/VellDeviceConfigVersion.cmake
    DESTINATION ${package})

install(FILES README.md ARCHITECTURE.md DESTINATION ${TAVI_INSTALL_DOCDIR})
install(DIRECTORY docs Examples DESTINATION ${TAVI_INSTALL_DOCDIR} PATTERN __pycache__ EXCLUDE)
