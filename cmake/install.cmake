# What belongs on a station beside the daemon. The system looks for these files below /usr, so that is
# where an installation goes unless it is told otherwise.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
    set_property(CACHE CMAKE_INSTALL_PREFIX PROPERTY VALUE /usr)
endif()
include(GNUInstallDirs)
set(VIGMOND_UNIT_DIR ${CMAKE_INSTALL_PREFIX}/lib/systemd/system CACHE PATH "where the service's unit goes")

configure_file(data/vigmond.service.in vigmond.service @ONLY)
install(TARGETS vigmond DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vigmond.service DESTINATION ${VIGMOND_UNIT_DIR})
install(FILES data/vigmond.sysusers DESTINATION lib/sysusers.d RENAME vigmond.conf)
install(FILES data/com.corvana.vigmond.conf DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d)
install(FILES data/com.corvana.State2.Issues.xml data/com.corvana.Config1.Network.xml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces)
install(FILES data/vigmond.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES data/vigmond.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME vigmond)
install(DIRECTORY data/examples DESTINATION ${CMAKE_INSTALL_DOCDIR})

# vigmond-log, in a package of its own.
configure_file(data/vigmond-textfile.service.in vigmond-textfile.service @ONLY)
install(TARGETS vigmond-log DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vigmond-textfile.service data/vigmond-textfile.timer
        DESTINATION ${VIGMOND_UNIT_DIR} COMPONENT tools)
install(FILES data/vigmond-log.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
install(FILES data/vigmond-log.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME vigmond-log
        COMPONENT tools)
