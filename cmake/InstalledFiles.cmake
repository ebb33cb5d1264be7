# What is installed beside the programs and the library: manual pages, the MIB module, the shell's completion. Folders
# that Debian and net-snmp look in; those of /etc, /lib/systemd and the like are the packages' affair.
foreach(page kxsnmp.8 kxagentd.8 kxagentd.toml.5 kxctl.1)
  cmake_path(GET page EXTENSION LAST_ONLY section)
  string(SUBSTRING ${section} 1 1 section)
  install(FILES man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
install(FILES mibs/CORVANE-MIB.txt DESTINATION ${CMAKE_INSTALL_DATADIR}/snmp/mibs)
# In a private folder: the full modules, which others may install, are to be found first.
install(DIRECTORY mibs/base/ DESTINATION ${CMAKE_INSTALL_DATADIR}/kxsnmp/mibs)
install(FILES ctl/kxctl.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME kxctl)
