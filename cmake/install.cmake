# What `cmake --install` puts where, beside the targets. A component is what one package holds: access, standin, tools, mqtt,
# client and client-dev, which is the client library (client/CMakeLists.txt);
# dev is for those who build against the platform's headers.
set(install_docs ${CMAKE_INSTALL_DATAROOTDIR}/doc)
set(install_configured ${PROJECT_BINARY_DIR}/packaging)

# /etc when the prefix is /usr, else below the prefix.
set(install_etc ${CMAKE_INSTALL_SYSCONFDIR})
cmake_path(IS_PREFIX CMAKE_INSTALL_PREFIX ${CMAKE_INSTALL_FULL_SYSCONFDIR} below_prefix)
if(NOT below_prefix)
  set(install_etc ${CMAKE_INSTALL_FULL_SYSCONFDIR})
endif()

# The units and the D-Bus file name the program where it is installed.
function(install_template template destination component)
  cmake_path(GET template FILENAME name)
  string(REGEX REPLACE "\\.in$" "" name ${name})
  configure_file(${PROJECT_SOURCE_DIR}/packaging/${template} ${install_configured}/${name} @ONLY)
  install(FILES ${install_configured}/${name} DESTINATION ${destination} COMPONENT ${component})
endfunction()

install_template(systemd/kesto-access.service.in lib/systemd/user access)
install_template(dbus/com.quillmont.kesto.Access.service.in ${CMAKE_INSTALL_DATADIR}/dbus-1/services access)
install(FILES packaging/dbus/com.quillmont.kesto.Access.xml
  DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces COMPONENT access)
install(FILES packaging/systemd/kesto-access.sysctl
  DESTINATION lib/sysctl.d RENAME 50-kesto-access.conf COMPONENT access)
install(FILES packaging/systemd/kesto-access.environment
  DESTINATION ${install_etc}/default RENAME kesto-access COMPONENT access)
install(FILES packaging/README.md docs/architecture.md
  DESTINATION ${install_docs}/kesto-access COMPONENT access)
install(FILES docs/man/kesto-access.8
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT access OPTIONAL)

if(ACCESS_TOOLS)
  install(DIRECTORY examples/cpp/ DESTINATION ${install_docs}/libkesto-client-dev/examples COMPONENT client-dev)
  install(FILES proto/access.proto DESTINATION ${CMAKE_INSTALL_DATADIR}/kesto COMPONENT tools)
  install(FILES docs/protocol.md DESTINATION ${install_docs}/kesto-tools COMPONENT tools OPTIONAL)
  foreach(program kesto-client kesto-device)
    install(FILES docs/man/${program}.1
      DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools OPTIONAL)
    # bash looks for a file of the command's name.
    install(FILES packaging/completion/kesto
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${program} COMPONENT tools OPTIONAL)
  endforeach()
endif()

if(ACCESS_MQTT)
  install_template(systemd/kesto-mqtt.service.in lib/systemd/system mqtt)
  # The owner's alone, since passwords are to stand there.
  install(FILES packaging/systemd/kesto-mqtt.conf
    DESTINATION ${install_etc} PERMISSIONS OWNER_READ OWNER_WRITE COMPONENT mqtt)
  install(FILES docs/mqtt.md DESTINATION ${install_docs}/kesto-mqtt COMPONENT mqtt OPTIONAL)
  install(DIRECTORY docs/mqtt DESTINATION ${install_docs}/kesto-mqtt COMPONENT mqtt OPTIONAL)  # its pictures
  install(DIRECTORY examples/mqtt/ DESTINATION ${install_docs}/kesto-mqtt/examples COMPONENT mqtt)
  install(FILES docs/man/kesto-mqtt.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT mqtt OPTIONAL)
  install(FILES packaging/completion/kesto
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME kesto-mqtt COMPONENT mqtt OPTIONAL)
endif()
