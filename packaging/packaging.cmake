# What `cmake --install` puts beside the programs so the profiler installs
# like a desktop application, and the settings of the Debian package that
# scripts/package builds with CPack. Included from the top-level
# CMakeLists.txt once every program's target exists; each program's own
# CMakeLists.txt installs its binary.

include(GNUInstallDirs)

set(TARN_APP_ID org.tarn.Profiler)
set(TARN_HOMEPAGE https://tarn.example/profiler)
set(TARN_MAINTAINER "The TARN Profiler developers <profiler@tarn.example>")
# The day release ${PROJECT_VERSION} was made: the AppStream release and the
# Debian changelog carry it. Move it with the version.
set(TARN_RELEASE_DATE 2026-11-23)

option(TARN_DEBIAN_PACKAGE "Also install the files only the Debian package has (its changelog)" OFF)

set(TARN_PACKAGING_DIR ${CMAKE_CURRENT_LIST_DIR})
set(TARN_PACKAGING_BINARY_DIR ${CMAKE_CURRENT_BINARY_DIR}/packaging)

# Debian wants manual pages and changelogs gzipped, without a time stamp in
# the gzip header so the package is reproducible.
find_program(TARN_GZIP gzip REQUIRED)
function(tarn_gzip source output)
    get_filename_component(name ${output} NAME_WLE)
    set(copy ${TARN_PACKAGING_BINARY_DIR}/${name})
    add_custom_command(OUTPUT ${output}
        COMMAND ${CMAKE_COMMAND} -E copy ${source} ${copy}
        COMMAND ${TARN_GZIP} -9 -n -f ${copy}
        DEPENDS ${source}
        VERBATIM)
endfunction()

set(TARN_MANUAL_PAGES tarn-profiler tarn-capture tarn-demo-target)
set(TARN_GZIPPED_FILES)
foreach(page ${TARN_MANUAL_PAGES})
    set(output ${TARN_PACKAGING_BINARY_DIR}/${page}.1.gz)
    tarn_gzip(${TARN_PACKAGING_DIR}/man/${page}.1 ${output})
    list(APPEND TARN_GZIPPED_FILES ${output})
    install(FILES ${output} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endforeach()

# The changelog's date is RFC 2822, the same day as the AppStream release.
execute_process(COMMAND date --utc --rfc-email --date "${TARN_RELEASE_DATE} 12:00:00"
    OUTPUT_VARIABLE TARN_RELEASE_DATE_RFC2822 OUTPUT_STRIP_TRAILING_WHITESPACE
    COMMAND_ERROR_IS_FATAL ANY)
# The package is native (no Debian revision), so its changelog is plain
# changelog.gz.
configure_file(${TARN_PACKAGING_DIR}/debian/changelog.in ${TARN_PACKAGING_BINARY_DIR}/debian-changelog @ONLY)
tarn_gzip(${TARN_PACKAGING_BINARY_DIR}/debian-changelog ${TARN_PACKAGING_BINARY_DIR}/changelog.gz)
list(APPEND TARN_GZIPPED_FILES ${TARN_PACKAGING_BINARY_DIR}/changelog.gz)

add_custom_target(tarn-packaging-files ALL DEPENDS ${TARN_GZIPPED_FILES})

configure_file(${TARN_PACKAGING_DIR}/${TARN_APP_ID}.metainfo.xml.in
    ${TARN_PACKAGING_BINARY_DIR}/${TARN_APP_ID}.metainfo.xml @ONLY)

install(FILES ${TARN_PACKAGING_DIR}/tarn-profiler.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${TARN_PACKAGING_BINARY_DIR}/${TARN_APP_ID}.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
install(FILES ${TARN_PACKAGING_DIR}/icons/tarn-profiler.svg
    DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
foreach(size 48 256)
    install(FILES ${TARN_PACKAGING_DIR}/icons/tarn-profiler-${size}.png
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps
        RENAME tarn-profiler.png)
endforeach()
install(FILES ${TARN_PACKAGING_DIR}/debian/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
if(TARN_DEBIAN_PACKAGE)
    install(FILES ${TARN_PACKAGING_BINARY_DIR}/changelog.gz DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()

# Paints the PNG icons from the same shapes as the SVG; not part of a normal
# build.
add_subdirectory(${PROJECT_SOURCE_DIR}/tools/icon-generator ${CMAKE_CURRENT_BINARY_DIR}/tools/icon-generator
    EXCLUDE_FROM_ALL)

# The Debian package: one binary package with every program, its
# dependencies found by dpkg-shlibdeps from what the programs link.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarn-profiler)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "The TARN Profiler developers")
set(CPACK_PACKAGE_CONTACT ${TARN_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${TARN_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE ${TARN_HOMEPAGE})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"live profiler for games built on the TARN audio engine
TARN Profiler connects over TCP to a game that runs with profiling enabled
and shows, as it happens, the game's DSP network as a tree of unit boxes
with their CPU use, level meters, sends and channel groups, and line graphs
of CPU use, channel counts, codec usage and memory.
.
The package also holds tarn-capture, which records sessions without a
window and exports them as CSV tables or a Graphviz graph, and
tarn-demo-target, a simulated game to try the profiler with.")
include(CPack)
