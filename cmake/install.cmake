# Installs the daemon and its files. The default prefix is /usr, because the system searches there for these files.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
    set_property(CACHE CMAKE_INSTALL_PREFIX PROPERTY VALUE /usr)
endif()
include(GNUInstallDirs)
set(VIGMOND_UNIT_DIR ${CMAKE_INSTALL_PREFIX}/lib/systemd/system CACHE PATH "where the service's unit goes")
set(VIGMOND_ZSH_DIR ${CMAKE_INSTALL_FULL_DATADIR}/zsh/site-functions CACHE PATH "where zsh finds completions")

foreach(file vigmond.service vigmond.8 vigmond-status-log.5)
    configure_file(data/${file}.in ${file} @ONLY)
endforeach()
install(TARGETS vigmond DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vigmond.service DESTINATION ${VIGMOND_UNIT_DIR})
install(FILES data/vigmond.sysusers DESTINATION lib/sysusers.d RENAME vigmond.conf)
install(FILES data/com.corvana.vigmond.conf DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d)
install(FILES data/com.corvana.State2.Issues.xml data/com.corvana.Config1.Network.xml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vigmond.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vigmond-status-log.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES data/vigmond.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME vigmond)
install(FILES data/vigmond.zsh DESTINATION ${VIGMOND_ZSH_DIR} RENAME _vigmond)
install(FILES CHANGELOG.md docs/integrators.md docs/operators.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY data/examples DESTINATION ${CMAKE_INSTALL_DOCDIR} PATTERN fleet EXCLUDE)
install(FILES docs/examples/watch_issues.cpp DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

# vigmond-log, in a package of its own.
configure_file(data/vigmond-textfile.service.in vigmond-textfile.service @ONLY)
install(TARGETS vigmond-log DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vigmond-textfile.service data/vigmond-textfile.timer
        DESTINATION ${VIGMOND_UNIT_DIR} COMPONENT tools)
install(FILES data/vigmond-log.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
install(FILES data/vigmond-log.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME vigmond-log
        COMPONENT tools)
install(FILES docs/fleet.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/vigmond-tools COMPONENT tools)
install(DIRECTORY data/examples/fleet DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/vigmond-tools/examples COMPONENT tools)
