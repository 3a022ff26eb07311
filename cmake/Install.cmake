# What an installation holds, in three components: runtime (the libraries), dev (what it takes to
# build against them) and, where they are built, tools (the service, the command line, and what the
# bus and the service manager need of them). Any prefix works.

option(QOR_INSTALL_RPATH "Installed binaries find the libraries beside them, whatever the prefix" ON)

set(QOR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QOR)
set(QOR_LIBRARY_TARGETS QOR)
if(TARGET qor-platform)
    list(APPEND QOR_LIBRARY_TARGETS qor-platform)
endif()

if(QOR_INSTALL_RPATH)
    file(RELATIVE_PATH _to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
    set_target_properties(${QOR_LIBRARY_TARGETS} PROPERTIES INSTALL_RPATH "$ORIGIN")
    if(QOR_BUILD_TOOLS)
        set_target_properties(qord qorctl PROPERTIES INSTALL_RPATH "$ORIGIN/${_to_lib}")
    endif()
endif()

install(TARGETS ${QOR_LIBRARY_TARGETS}
    EXPORT QORTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qor/platform)

install(DIRECTORY include/qor DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
if(TARGET qor-platform)
    install(DIRECTORY platform/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qor/platform
        COMPONENT dev)
endif()

include(CMakePackageConfigHelpers)
configure_package_config_file(cmake/QORConfig.cmake.in ${PROJECT_BINARY_DIR}/QORConfig.cmake
    INSTALL_DESTINATION ${QOR_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QORConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QORConfig.cmake ${PROJECT_BINARY_DIR}/QORConfigVersion.cmake
    DESTINATION ${QOR_CMAKE_DIR} COMPONENT dev)
install(EXPORT QORTargets NAMESPACE QOR:: DESTINATION ${QOR_CMAKE_DIR} COMPONENT dev)

# The prefix is known when it is installed. It is absolute, since pkg-config puts the sysroot in front of
# it, and some would in front of a path that has it already.
set(QOR_PC_PREFIX @_prefix@)
configure_file(cmake/qor.pc.in qor.pc.in @ONLY)
install(CODE "
    string(REPLACE \" \" \"\\\\ \" _prefix \"\${CMAKE_INSTALL_PREFIX}\")
    configure_file(\"${PROJECT_BINARY_DIR}/qor.pc.in\" \"${PROJECT_BINARY_DIR}/qor.pc\" @ONLY)"
    COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/qor.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

set(QOR_BUS_DIR ${CMAKE_INSTALL_DATADIR}/dbus-1)
install(FILES data/com.norvane.qor.IControl.xml data/com.norvane.qor.Policy1.xml
    DESTINATION ${QOR_BUS_DIR}/interfaces COMPONENT dev)

if(NOT QOR_BUILD_TOOLS)
    return()
endif()
install(TARGETS qord qorctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)

# --- The service on the bus ----------------------------------------------------------------------
if(QOR_SYSTEMD STREQUAL "AUTO")
    pkg_search_module(QOR_SYSTEMD_FILES QUIET systemd libsystemd)
    set(_has_systemd ${QOR_SYSTEMD_FILES_FOUND})
    if(NOT CMAKE_CROSSCOMPILING) # a system may run systemd and have no package with that file
        find_program(QOR_SYSTEMCTL systemctl)
        mark_as_advanced(QOR_SYSTEMCTL)
        if(QOR_SYSTEMCTL)
            set(_has_systemd TRUE)
        endif()
    endif()
elseif(QOR_SYSTEMD MATCHES "^(ON|OFF)$")
    set(_has_systemd ${QOR_SYSTEMD})
else()
    message(FATAL_ERROR "QOR_SYSTEMD is ON, OFF or AUTO, not '${QOR_SYSTEMD}'")
endif()
set(QOR_ACTIVATED_UNIT "")
if(_has_systemd)
    set(QOR_ACTIVATED_UNIT "SystemdService=qord.service")
endif()
message(STATUS "Files for systemd (QOR_SYSTEMD=${QOR_SYSTEMD}): ${_has_systemd}")
set(QOR_STATE_DIR ${CMAKE_INSTALL_FULL_LOCALSTATEDIR}/lib/qor)
set(QOR_BUS_EXEC "\"${CMAKE_INSTALL_FULL_BINDIR}/qord\" --policy \"${QOR_STATE_DIR}/policy.xml\"")
include(cmake/Inits.cmake)
configure_file(data/com.norvane.qor.IControl.service.in com.norvane.qor.IControl.service @ONLY)
configure_file(data/qord.service.in qord.service @ONLY)
set(QOR_SYSUSERS_GROUP "")
if(NOT QOR_ADMIN_GROUP STREQUAL "")
    set(QOR_SYSUSERS_GROUP "g ${QOR_ADMIN_GROUP} -")
endif()
set(QOR_SYSUSERS_USER "")
if(NOT QOR_SERVICE_USER STREQUAL "root")
    set(QOR_SYSUSERS_USER "u ${QOR_SERVICE_USER} - \"Platform monitoring service\" ${QOR_STATE_DIR}")
endif()
configure_file(data/qor-sysusers.conf.in qor-sysusers.conf @ONLY)

install(FILES ${PROJECT_BINARY_DIR}/data/com.norvane.qor.IControl.conf
    DESTINATION ${QOR_BUS_DIR}/system.d COMPONENT tools)
install(FILES ${PROJECT_BINARY_DIR}/com.norvane.qor.IControl.service
    DESTINATION ${QOR_BUS_DIR}/system-services COMPONENT tools)
if(_has_systemd)
    install(FILES ${PROJECT_BINARY_DIR}/qord.service DESTINATION lib/systemd/system COMPONENT tools)
endif()
if(_has_systemd AND NOT "${QOR_SYSUSERS_GROUP}${QOR_SYSUSERS_USER}" STREQUAL "")
    install(FILES ${PROJECT_BINARY_DIR}/qor-sysusers.conf DESTINATION lib/sysusers.d RENAME qor.conf
        COMPONENT tools)
endif()
install(FILES data/sample-policy.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/qor COMPONENT tools)

# --- For people ----------------------------------------------------------------------------------
find_program(QOR_GZIP gzip REQUIRED)
mark_as_advanced(QOR_GZIP)
# qor_gzip(INPUT OUTPUT): compressed the same way each time.
function(qor_gzip input output)
    add_custom_command(OUTPUT ${output} COMMAND ${QOR_GZIP} -9nc ${input} > ${output}
        DEPENDS ${input} VERBATIM)
    string(MAKE_C_IDENTIFIER ${output} _target)
    add_custom_target(gzip-${_target} ALL DEPENDS ${output})
endfunction()

qor_gzip(${PROJECT_SOURCE_DIR}/docs/man/qorctl.1 qorctl.1.gz)
qor_gzip(${PROJECT_SOURCE_DIR}/docs/man/qord.8 qord.8.gz)
install(FILES ${PROJECT_BINARY_DIR}/qorctl.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
    COMPONENT tools)
install(FILES ${PROJECT_BINARY_DIR}/qord.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8
    COMPONENT tools)
install(FILES data/completions/qorctl data/completions/qord
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
install(FILES data/completions/_qorctl data/completions/_qord
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tools)
install(FILES data/completions/qorctl.fish data/completions/qord.fish
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tools)
