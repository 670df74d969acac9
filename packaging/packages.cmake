# The Debian packages, one for each of the components that cmake/Install.cmake names. ./dev package
# makes them.
set(here ${CMAKE_CURRENT_LIST_DIR})
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL libraries development tools forward python)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_NAME orvane)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own first line
set(CPACK_PACKAGE_CONTACT "orvane maintainers <maintainers@example.org>")
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE orvane)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS ${here}/compress.cmake)
set(same_version "liborvane1 (= ${PROJECT_VERSION})")

if(NOT ORVANE_HAS_NATS)
  message(FATAL_ERROR "The packages need libnats: `scripts/deps forward` installs it")
endif()

# What a library offers, each with the version that it came with.
set(symbols ${CMAKE_CURRENT_BINARY_DIR}/symbols)
add_custom_command(OUTPUT ${symbols}
  COMMAND dpkg-gensymbols -q -c4 -pliborvane1 -v${PROJECT_VERSION} -O${symbols}
    -I${here}/liborvane1/symbols -e$<TARGET_FILE:orvane>
    -e$<TARGET_FILE:orvane_c> -e$<TARGET_FILE:orvane_lease> -e$<TARGET_FILE:orvane_platform>
  DEPENDS orvane orvane_c orvane_lease orvane_platform ${here}/liborvane1/symbols)
add_custom_target(package_symbols ALL DEPENDS ${symbols})

set(CPACK_DEBIAN_LIBRARIES_PACKAGE_NAME liborvane1)
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARIES_DESCRIPTION
"Streams of records to a local server, over shared memory
With these libraries a process hands a stream of records to a server on
the same machine, such as orvaned, through a queue in shared memory.")
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_CONTROL_EXTRA
  ${symbols}
  ${here}/liborvane1/shlibs
  ${here}/liborvane1/triggers)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME liborvane-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${same_version}, libboost1.81-dev | libboost-dev (>= 1.81)")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"Streams of records to a local server, for building programs
What building a program with liborvane takes: the headers, and the files
for CMake and pkg-config.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME orvane-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${same_version}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"Streams of records to a local server: server and command
The server orvaned stores streams of records that processes on the same
machine send it over shared memory. The command orvane sends files to it.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
  ${here}/orvane-tools/postinst
  ${here}/orvane-tools/prerm
  ${here}/orvane-tools/postrm)
install(FILES ${here}/orvaned@.service ${here}/orvaned-prune@.service ${here}/orvaned-prune@.timer
  DESTINATION lib/systemd/system COMPONENT tools)
install(FILES ${here}/orvaned.sysusers DESTINATION lib/sysusers.d RENAME orvaned.conf COMPONENT tools)

set(CPACK_DEBIAN_FORWARD_PACKAGE_NAME orvane-forward)
set(CPACK_DEBIAN_FORWARD_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_FORWARD_PACKAGE_DEPENDS "${same_version}, orvane-tools (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_FORWARD_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_FORWARD_DESCRIPTION
"Streams of records to a local server: forwarding to a cluster
The program orvane-forward sends the streams that orvaned has stored to a
NATS cluster, when they have ended. orvane fetch reads them from there.")
set(CPACK_DEBIAN_FORWARD_PACKAGE_CONTROL_EXTRA
  ${here}/orvane-forward/postinst
  ${here}/orvane-forward/prerm
  ${here}/orvane-forward/postrm)
install(FILES ${here}/orvane-forward@.service DESTINATION lib/systemd/system COMPONENT forward)

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-orvane)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "liborvane1 (>= ${PROJECT_VERSION}), python3 (>= 3.9), python3:any")
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS python3-zstandard)
set(CPACK_DEBIAN_PYTHON_DESCRIPTION
"Streams of records to a local server, for Python 3
With this package a program in Python sends streams of data to a server
on the same machine, such as orvaned, knows what is stored of them, and
reads what is stored.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
  ${here}/python3-orvane/postinst
  ${here}/python3-orvane/prerm)
install(DIRECTORY python/orvane DESTINATION lib/python3/dist-packages COMPONENT python
  FILES_MATCHING PATTERN *.py PATTERN py.typed)

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} key)
  set(package ${CPACK_DEBIAN_${key}_PACKAGE_NAME})
  install(FILES ${here}/changelog ${here}/copyright
    DESTINATION share/doc/${package} COMPONENT ${component})
endforeach()
install(FILES ${here}/liborvane1/lintian-overrides DESTINATION share/lintian/overrides
  RENAME liborvane1 COMPONENT libraries)

include(CPack)
