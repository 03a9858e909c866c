# What is installed, as components: a device takes daemon and client, a developer's machine board and dev too. The programs stand in
# the lists of their folders.
include(CMakePackageConfigHelpers)

install(FILES packaging/tavor.service DESTINATION lib/systemd/system COMPONENT daemon)
install(FILES packaging/tavor.sysusers DESTINATION lib/sysusers.d RENAME tavor.conf COMPONENT daemon)
install(FILES packaging/tavor.tmpfiles DESTINATION lib/tmpfiles.d RENAME tavor.conf COMPONENT daemon)
install(FILES packaging/tavor-journal.conf DESTINATION lib/systemd/journald@tavor.conf.d RENAME 10-tavor.conf COMPONENT daemon)
install(PROGRAMS packaging/tavor-service DESTINATION libexec/tavor COMPONENT daemon)
install(FILES packaging/tavor.conf packaging/tavor.env packaging/tavor.rules packaging/tavor-user.conf
    DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples" COMPONENT daemon)
install(FILES docs/firmware.md docs/hardware.md docs/troubleshooting.md DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT daemon)

install(FILES docs/tavor.8 DESTINATION "${CMAKE_INSTALL_MANDIR}/man8" COMPONENT daemon)
install(FILES docs/tavor.conf.5 DESTINATION "${CMAKE_INSTALL_MANDIR}/man5" COMPONENT daemon)
install(FILES docs/tavorctl.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT client)
if(TARGET tavor-board)
    install(FILES docs/tavor-board.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT board)
endif()

if(TARGET tavor-relay)
    install(FILES packaging/tavor-relay.service packaging/tavor-relay.socket DESTINATION lib/systemd/system COMPONENT relay)
    install(FILES packaging/tavor-relay.sysusers DESTINATION lib/sysusers.d RENAME tavor-relay.conf COMPONENT relay)
    install(FILES docs/tavor-relay.8 DESTINATION "${CMAKE_INSTALL_MANDIR}/man8" COMPONENT relay)
    install(FILES packaging/relay.conf docs/examples/prometheus.yml docs/examples/prometheus-alerts.yml
        DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples" COMPONENT relay)
endif()

# Completion for the shells. Debian keeps that of zsh in share/zsh/vendor-completions.
set(TAVOR_ZSH_DIR "${CMAKE_INSTALL_DATADIR}/zsh/site-functions" CACHE STRING "Where zsh finds completion functions")
function(install_completion program component)
    install(FILES packaging/completion/tavor.bash DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
        RENAME ${program} COMPONENT ${component})
    install(FILES packaging/completion/tavor.zsh DESTINATION "${TAVOR_ZSH_DIR}" RENAME _${program} COMPONENT ${component})
endfunction()
install_completion(tavorctl client)
if(TARGET tavor-relay)
    install_completion(tavor-relay relay)
endif()
if(TARGET tavor-board)
    install_completion(tavor-board board)
endif()

# The protocol's header for other clients: by pkg-config as "tavor", by find_package(tavor) as tavor::protocol.
install(FILES docs/tavor-protocol.7 DESTINATION "${CMAKE_INSTALL_MANDIR}/man7" COMPONENT dev)
install(DIRECTORY include/tavor DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT dev)
install(FILES docs/examples/client.c DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples" COMPONENT dev)
install(PROGRAMS docs/examples/client.py DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples" COMPONENT dev)
configure_file(cmake/tavor.pc.in "${CMAKE_CURRENT_BINARY_DIR}/tavor.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/tavor.pc" DESTINATION "${CMAKE_INSTALL_DATADIR}/pkgconfig" COMPONENT dev)
add_library(tavor_protocol INTERFACE)
set_target_properties(tavor_protocol PROPERTIES EXPORT_NAME protocol)
target_include_directories(tavor_protocol INTERFACE "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
install(TARGETS tavor_protocol EXPORT tavor_protocol COMPONENT dev)
install(EXPORT tavor_protocol NAMESPACE tavor:: FILE tavor-config.cmake
    DESTINATION "${CMAKE_INSTALL_DATADIR}/cmake/tavor" COMPONENT dev)
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/tavor-config-version.cmake"
    COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/tavor-config-version.cmake"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/cmake/tavor" COMPONENT dev)
