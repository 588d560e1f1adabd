# The Debian package: `cpack -G DEB` in the build folder (scripts/package).
#
# The bundle goes to /opt/velluma-installer as `cmake --install` lays it out;
# the files the desktop wants (launcher, menu entry, icons, AppStream data,
# copyright, changelog, lintian overrides) form the component "desktop",
# installed relative to / and only by the package, never by a plain
# `cmake --install`, which must keep making nothing but a bundle.

# cpack (and `make install`) take the tree as built instead of building it
# first: that build would relink the wizard, whose stamp changes every
# minute, under the feet of tests of the same tree that are running it.
# scripts/package builds what the package holds before it packs.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(VLUM_PACKAGE_NAME velluma-installer)
set(VLUM_PACKAGE_PREFIX /opt/velluma-installer)
set(VLUM_APPSTREAM_ID com.oktavo.velluma.installer)
set(VLUM_PACKAGING_DIR ${CMAKE_SOURCE_DIR}/packaging)
set(VLUM_PACKAGE_STAGE ${CMAKE_BINARY_DIR}/package)

# The changelog and the AppStream releases name the newest version too: a
# version bump without an entry in each would ship a package that
# contradicts itself.
file(STRINGS ${VLUM_PACKAGING_DIR}/changelog changelog_head LIMIT_COUNT 1)
string(REGEX MATCH "^${VLUM_PACKAGE_NAME} \\(([^)]+)\\)" _ "${changelog_head}")
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "packaging/changelog starts at version '${CMAKE_MATCH_1}', "
                      "the project is ${PROJECT_VERSION}: add an entry")
endif()
file(READ ${VLUM_PACKAGING_DIR}/${VLUM_APPSTREAM_ID}.metainfo.xml metainfo)
string(REGEX MATCH "<release version=\"([^\"]+)\"" _ "${metainfo}")
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "the metainfo's newest release is '${CMAKE_MATCH_1}', "
                      "the project is ${PROJECT_VERSION}: add a <release>")
endif()

# Menu icons in the hicolor sizes, rendered from the window icon's SVG, which
# itself goes in as the scalable one.
# Only the package needs rsvg-convert: without it the rest configures and
# builds, and building the package says what is missing.
find_program(VLUM_RSVG_CONVERT rsvg-convert)
if(VLUM_RSVG_CONVERT)
  set(rsvg_convert ${VLUM_RSVG_CONVERT})
  set(package_files_in_all ALL)
else()
  message(STATUS "rsvg-convert not found: the Debian package cannot be made here (scripts/setup package installs it)")
  set(rsvg_convert sh -c "echo 'rsvg-convert is missing: scripts/setup package installs it' >&2; exit 1" --)
  set(package_files_in_all)
endif()
set(VLUM_ICON_SVG ${CMAKE_SOURCE_DIR}/resources/art/vluminstaller.svg)
set(icons)
foreach(size 16 22 24 32 48 64 128 256)
  set(png ${VLUM_PACKAGE_STAGE}/icons/${size}x${size}/apps/${VLUM_PACKAGE_NAME}.png)
  add_custom_command(
    OUTPUT ${png}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${VLUM_PACKAGE_STAGE}/icons/${size}x${size}/apps
    COMMAND ${rsvg_convert} -w ${size} -h ${size} -o ${png} ${VLUM_ICON_SVG}
    DEPENDS ${VLUM_ICON_SVG}
    COMMENT "Rendering the ${size}x${size} menu icon"
    VERBATIM)
  list(APPEND icons ${png})
endforeach()

# Debian wants the changelog compressed, at the highest level and without a
# time stamp (-n), so that a rebuild gives the same bytes.
set(VLUM_CHANGELOG_GZ ${VLUM_PACKAGE_STAGE}/changelog.gz)
add_custom_command(
  OUTPUT ${VLUM_CHANGELOG_GZ}
  COMMAND gzip -9n -c ${VLUM_PACKAGING_DIR}/changelog > ${VLUM_CHANGELOG_GZ}
  DEPENDS ${VLUM_PACKAGING_DIR}/changelog
  COMMENT "Compressing the package's changelog")

# The launcher is a link: the wizard resolves its own executable's real path
# and finds Resources/ beside the bundle's bin/.
set(VLUM_LAUNCHER ${VLUM_PACKAGE_STAGE}/${VLUM_PACKAGE_NAME})
add_custom_command(
  OUTPUT ${VLUM_LAUNCHER}
  COMMAND ${CMAKE_COMMAND} -E create_symlink ${VLUM_PACKAGE_PREFIX}/bin/velluma-installer ${VLUM_LAUNCHER}
  COMMENT "Making the launcher link")

add_custom_target(vlum_package_files ${package_files_in_all} DEPENDS ${icons} ${VLUM_CHANGELOG_GZ} ${VLUM_LAUNCHER})
# Everything the package holds, so that scripts/package can build just that
# and leave the tests and tools aside.
add_custom_target(vlum_package_contents)
add_dependencies(vlum_package_contents velluma-installer velluma-installer-helper vlum_package_installer
                 vlum_stand_ins vlum_demo_key vlum_resources vlum_package_files)

set(desktop COMPONENT desktop EXCLUDE_FROM_ALL)
install(FILES ${VLUM_LAUNCHER} DESTINATION usr/bin ${desktop})
install(FILES ${VLUM_PACKAGING_DIR}/${VLUM_PACKAGE_NAME}.desktop DESTINATION usr/share/applications ${desktop})
install(FILES ${VLUM_PACKAGING_DIR}/${VLUM_APPSTREAM_ID}.metainfo.xml DESTINATION usr/share/metainfo ${desktop})
install(DIRECTORY ${VLUM_PACKAGE_STAGE}/icons/ DESTINATION usr/share/icons/hicolor ${desktop})
install(FILES ${VLUM_ICON_SVG} DESTINATION usr/share/icons/hicolor/scalable/apps
        RENAME ${VLUM_PACKAGE_NAME}.svg ${desktop})
install(FILES ${VLUM_PACKAGING_DIR}/copyright ${VLUM_CHANGELOG_GZ}
        DESTINATION usr/share/doc/${VLUM_PACKAGE_NAME} ${desktop})
install(FILES ${VLUM_PACKAGING_DIR}/lintian-overrides DESTINATION usr/share/lintian/overrides
        RENAME ${VLUM_PACKAGE_NAME} ${desktop})

# The bundle (every rule without a component) under the prefix, the desktop
# files under /.
set(CPACK_INSTALL_CMAKE_PROJECTS
    "${CMAKE_BINARY_DIR};${PROJECT_NAME};Unspecified;${VLUM_PACKAGE_PREFIX}"
    "${CMAKE_BINARY_DIR};${PROJECT_NAME};desktop;/")
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${VLUM_PACKAGE_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR Oktavo)
set(CPACK_PACKAGE_CONTACT "Oktavo <support@oktavo.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "installer for the Velluma product family")
# Lines of the control file's description, which Debian wants under 80
# columns.
set(CPACK_PACKAGE_DESCRIPTION
    "A desktop wizard that signs the user in with an Oktavo account, looks"
    "at the machine (its memory, the Maya versions and the Velluma products"
    "already installed) and downloads and installs the Velluma products that"
    "suit it. The packages are installed as root by a helper service, which"
    "is set up with an administrator's consent the first time it is needed.")
list(JOIN CPACK_PACKAGE_DESCRIPTION "\n" CPACK_PACKAGE_DESCRIPTION)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE https://www.oktavo.com/)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The profiler stand-in is a Python program; the helper service is set up
# through pkexec on first use, and without it the wizard says it cannot.
set(CPACK_DEBIAN_PACKAGE_DEPENDS python3)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS pkexec)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
