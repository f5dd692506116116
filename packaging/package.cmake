# Installation layout and the Debian package of the daemon and its tools.
# The daemon is a system service: the configuration, the unit and the state
# directories go to their system places (absolute), the programs, the manual
# and the shared files below the prefix (/usr in the package).
include(GNUInstallDirs)

set(TROV_PKG_DIR ${CMAKE_CURRENT_LIST_DIR})

# Debian installs manual pages compressed; -n keeps the archive free of the
# build's time stamp and file name, so equal sources give an equal file.
find_program(TROV_GZIP gzip REQUIRED)
set(TROV_MAN_GZ ${PROJECT_BINARY_DIR}/trov.8.gz)
add_custom_command(OUTPUT ${TROV_MAN_GZ}
    COMMAND ${TROV_GZIP} -9 -n -c ${PROJECT_SOURCE_DIR}/doc/trov.8 > ${TROV_MAN_GZ}
    DEPENDS ${PROJECT_SOURCE_DIR}/doc/trov.8
    COMMENT "Compressing the manual page")
add_custom_target(trov_manpage ALL DEPENDS ${TROV_MAN_GZ})

install(TARGETS trov RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS trov-order RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${TROV_MAN_GZ} DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${PROJECT_SOURCE_DIR}/etc/trov-packaged.conf DESTINATION /etc RENAME trov.conf)
install(FILES ${PROJECT_SOURCE_DIR}/etc/trov.service DESTINATION /lib/systemd/system)
# The loader finds the scripts at ../lbdb from its own directory, so the two
# keep their places relative to each other.
file(GLOB TROV_LBDB_SCRIPTS ${PROJECT_SOURCE_DIR}/lbdb/*.lua)
install(FILES ${TROV_LBDB_SCRIPTS} ${PROJECT_SOURCE_DIR}/lbdb/README.md
        DESTINATION ${CMAKE_INSTALL_DATADIR}/trov/lbdb)
install(PROGRAMS ${PROJECT_SOURCE_DIR}/scripts/lbdb-load DESTINATION ${CMAKE_INSTALL_DATADIR}/trov/scripts)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/trov)
# The data and log directories the installed configuration names; the
# daemon makes neither.
install(DIRECTORY DESTINATION /var/lib/trov)
install(DIRECTORY DESTINATION /var/log/trov)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME trov)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "trov")
set(CPACK_PACKAGE_CONTACT "trov maintainers <trov@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "download agent for edge hosts")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
    "trov is a long-running daemon that takes download orders over HTTP or as UDP\n"
    "datagrams (unicast or multicast) and fetches each ordered URL over plain HTTP\n"
    "into a local data directory, so that other services on the host can serve the\n"
    "files locally. Optionally it registers each downloaded file in a Redis\n"
    "load-balancer database. The package holds the daemon, its systemd unit, the\n"
    "trov-order command and the load-balancer database scripts.")
# The absolute destinations above must land in the package, not on the
# building machine: DESTDIR points every install into the staging tree.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# redis-cli loads the database scripts; the database itself may live anywhere.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "redis-tools, redis-server")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${TROV_PKG_DIR}/deb/conffiles ${TROV_PKG_DIR}/deb/postinst ${TROV_PKG_DIR}/deb/prerm
    ${TROV_PKG_DIR}/deb/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
