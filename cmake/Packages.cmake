# Debian packages, one a component: libqor1, libqor-dev, qor-tools.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qor)
set(CPACK_PACKAGE_VENDOR "QOR developers")
set(CPACK_PACKAGE_CONTACT "QOR developers <developers@qor.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_OUTPUT_FILE_PREFIX ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)

set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/api ${PROJECT_BINARY_DIR}/platform)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqor${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"D-Bus channel to the platform monitoring service - libraries
The library through which applications hand the platform monitoring service
a new policy and hear of its events, and with which the service is built.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libqor-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libboost-filesystem-dev, libboost-serialization-dev, libboost-thread-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION
"D-Bus channel to the platform monitoring service - development files
Headers, CMake package and pkg-config file.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME qor-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "adduser")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "default-dbus-system-bus | dbus-system-bus")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"D-Bus channel to the platform monitoring service - service and tools
qord, the reference service, with its bus policy, activation file and systemd
unit, and qorctl, which hands it policies and listens to its events.")

# Maintainer scripts of the tools; what they do depends on the service's user.
set(_scripts)
foreach(script postinst prerm postrm)
    configure_file(packaging/${script}.in packaging/${script} @ONLY
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    list(APPEND _scripts ${PROJECT_BINARY_DIR}/packaging/${script})
endforeach()
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${_scripts})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# Each package has its copyright note and changelog where Debian looks for them.
configure_file(packaging/changelog.in packaging/changelog @ONLY)
qor_gzip(${PROJECT_BINARY_DIR}/packaging/changelog packaging/changelog.Debian.gz)
foreach(component runtime dev tools)
    string(TOUPPER ${component} _upper)
    set(_doc ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${_upper}_PACKAGE_NAME})
    install(FILES packaging/copyright ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz
        DESTINATION ${_doc} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
