# Run by cpack before it packs: Debian keeps manuals and changelogs compressed.
set(usr ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr)
file(GLOB files ${usr}/share/man/man*/* ${usr}/share/doc/*/changelog)
execute_process(COMMAND gzip -9n ${files} COMMAND_ERROR_IS_FATAL ANY)
