# The service under inits other than systemd. With one of them the bus, which starts the service
# itself there, runs the same script as the init does, so that options hold in either case.

foreach(_init IN LISTS QOR_INIT)
    if(NOT _init MATCHES "^(openrc|sysvinit|busybox)$")
        message(FATAL_ERROR "QOR_INIT: ${_init} is none of openrc, sysvinit and busybox")
    endif()
endforeach()
if("openrc" IN_LIST QOR_INIT AND "sysvinit" IN_LIST QOR_INIT)
    message(FATAL_ERROR "QOR_INIT: openrc and sysvinit have the same place for a service: choose one")
endif()
if(QOR_INIT STREQUAL "")
    return()
endif()

set(QOR_RUN ${CMAKE_INSTALL_FULL_LIBEXECDIR}/qor/qord-run)
set(QOR_BUS_EXEC "\"${QOR_RUN}\" bus")

# qor_install_script(INPUT FOLDER NAME)
function(qor_install_script input folder name)
    configure_file(data/init/${input}.in init/${input} @ONLY)
    install(PROGRAMS ${PROJECT_BINARY_DIR}/init/${input} DESTINATION ${folder} RENAME ${name}
        COMPONENT tools)
endfunction()

qor_install_script(qord-run ${CMAKE_INSTALL_LIBEXECDIR}/qor qord-run)
# Below /etc, where inits look, if the prefix is /usr.
if("openrc" IN_LIST QOR_INIT)
    qor_install_script(openrc ${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d qord)
endif()
if("sysvinit" IN_LIST QOR_INIT)
    qor_install_script(sysvinit ${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d qord)
endif()
if("busybox" IN_LIST QOR_INIT)
    qor_install_script(runsv ${CMAKE_INSTALL_FULL_SYSCONFDIR}/sv/qord run)
endif()
