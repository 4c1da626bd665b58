# The Debian package, made with CPack (scripts/package builds it). Its
# dependencies are computed from the shared libraries the programs use; it
# needs no maintainer scripts: man-db, the desktop database and the icon
# cache update themselves through dpkg triggers, and the receiver's unit is
# the user's to enable.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kestrelvane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Kestrelvane developers <developers@kestrelvane.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "copy photos and videos to an iPhone or another computer, verified")
set(CPACK_PACKAGE_DESCRIPTION
    "Kestrelvane copies photos and videos from this computer to an iPhone
attached by USB (through usbmuxd), or to another computer on the local
network that runs its receiver, privately once the two are paired. Every
file is checked by its SHA-256 where it lands, and a send that breaks
resumes with what is missing, inside a file too.
.
The package holds the window (kestrelvane-app), the command-line tool
(kestrelvane), a systemd user unit that keeps a receiver running, and
kestrelvane-usbmuxd-sim, a usbmuxd daemon with virtual iPhones for trying
the tool without one.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "usbmuxd, avahi-daemon")
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://kestrelvane.org")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS OFF)
# What every Debian package carries in its documentation folder.
include(GNUInstallDirs)
add_custom_command(OUTPUT changelog.gz
    COMMAND gzip -9nc ${CMAKE_CURRENT_LIST_DIR}/changelog > changelog.gz
    DEPENDS ${CMAKE_CURRENT_LIST_DIR}/changelog VERBATIM)
add_custom_target(kestrelvane-changelog ALL DEPENDS changelog.gz)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kestrelvane)
include(CPack)
