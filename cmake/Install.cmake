# What `cmake --install` installs: the libraries, what programs need to be built with them, the tools.
# The components are the Debian packages.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/orvane)

# So that a tree under any prefix runs, wherever it is moved. Packages set CMAKE_SKIP_INSTALL_RPATH.
set_target_properties(orvane orvane_c orvane_lease orvane_platform PROPERTIES INSTALL_RPATH $ORIGIN)
set_target_properties(orvane_c PROPERTIES EXPORT_NAME c)
set_target_properties(orvane_lease PROPERTIES EXPORT_NAME lease)
set_target_properties(orvane_platform PROPERTIES EXPORT_NAME platform)
set_target_properties(orvane_queue PROPERTIES EXPORT_NAME queue)

install(TARGETS orvane_platform EXPORT orvane-platform
  LIBRARY COMPONENT libraries NAMELINK_COMPONENT development)
install(TARGETS orvane orvane_c orvane_lease orvane_queue EXPORT orvane
  LIBRARY COMPONENT libraries NAMELINK_COMPONENT development)
install(DIRECTORY include/ platform/include/ queue/include/
  TYPE INCLUDE COMPONENT development FILES_MATCHING PATTERN *.hpp PATTERN *.h)

foreach(export orvane-platform orvane)
  install(EXPORT ${export} NAMESPACE orvane:: FILE ${export}-targets.cmake
    DESTINATION ${package_dir} COMPONENT development)
endforeach()
configure_package_config_file(cmake/orvane-config.cmake.in orvane-config.cmake
  INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(orvane-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/orvane-config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/orvane-config-version.cmake
    cmake/Boost.cmake
  DESTINATION ${package_dir} COMPONENT development)

file(RELATIVE_PATH prefix_from_pc /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
foreach(library orvane orvane-c orvane-lease orvane-platform orvane-queue)
  configure_file(cmake/${library}.pc.in ${library}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${library}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()
install(FILES docs/man/orvane.3 docs/man/orvane_stream.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)

if(ORVANE_BUILD_TOOLS)
  file(RELATIVE_PATH libraries_from_tools /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(orvaned orvane_command PROPERTIES
    INSTALL_RPATH $ORIGIN/${libraries_from_tools})
  install(TARGETS orvaned orvane_command RUNTIME COMPONENT tools)
  install(FILES docs/man/orvane.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  install(FILES docs/man/orvaned.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT tools)

  set(completions packaging/completion)
  install(FILES ${completions}/orvane.bash RENAME orvane COMPONENT tools
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES ${completions}/orvane.fish COMPONENT tools
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
  # Where zsh looks for what a package installs, and for what the machine's owner does.
  if(CMAKE_INSTALL_PREFIX STREQUAL /usr)
    set(zsh_folder vendor-completions)
  else()
    set(zsh_folder site-functions)
  endif()
  install(FILES ${completions}/_orvane COMPONENT tools
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/${zsh_folder})
endif()

if(ORVANE_BUILD_TOOLS AND ORVANE_HAS_NATS)
  set_target_properties(orvane_forward orvane_fetch PROPERTIES
    INSTALL_RPATH $ORIGIN/${libraries_from_tools})
  install(TARGETS orvane_forward orvane_fetch RUNTIME COMPONENT forward)
  install(FILES docs/man/orvane-forward.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT forward)
  install(FILES docs/man/orvane-fetch.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT forward)
  # These two shells look for a file with the name of the command.
  install(FILES ${completions}/orvane.bash RENAME orvane-forward COMPONENT forward
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES ${completions}/orvane.fish RENAME orvane-forward.fish COMPONENT forward
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
endif()
