# Installation. `cmake --install` puts kestil, kestil-pass and kestil-sim in the binary directory with the
# eleven command names as symbolic links to kestil, the manual pages, the bash completion and
# the Wireshark dissector. The Debian package (debian/, `make deb`) takes exactly this tree,
# so an executable or page installed here is packaged without a change to debian/.
include(GNUInstallDirs)

# Installing takes what is built instead of building every target, tests included, on the way.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY TRUE)

# The program names of the command table: the executable picks its command from the name
# it runs under, so each is a relative link that works under any prefix.
set(KESTIL_COMMAND_NAMES
    kestil-get kestil-resume kestil-put kestil-ls kestil-rm kestil-report kestil-lsread
    kestil-progress dlq-add dlq-rm filemgr-status)

# Wireshark loads Lua plugins from its global plugin folder, which Debian keeps under the
# multiarch library directory whatever the install prefix.
if(CMAKE_LIBRARY_ARCHITECTURE)
  set(kestil_plugin_default lib/${CMAKE_LIBRARY_ARCHITECTURE}/wireshark/plugins)
else()
  set(kestil_plugin_default ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins)
endif()
set(KESTIL_WIRESHARK_PLUGINDIR ${kestil_plugin_default} CACHE STRING
    "Where the Wireshark dissector is installed, relative to the prefix")
set(KESTIL_BASH_COMPLETIONDIR ${CMAKE_INSTALL_DATADIR}/bash-completion/completions CACHE STRING
    "Where the bash completion is installed, relative to the prefix")

# The links are made once in the build tree and installed as links.
set(kestil_link_dir ${CMAKE_BINARY_DIR}/install-links)
file(MAKE_DIRECTORY ${kestil_link_dir}/bin ${kestil_link_dir}/man1 ${kestil_link_dir}/completions)
set(kestil_bin_links "")
set(kestil_man_links "")
set(kestil_completion_links "")
foreach(name IN LISTS KESTIL_COMMAND_NAMES)
  file(CREATE_LINK kestil ${kestil_link_dir}/bin/${name} SYMBOLIC)
  file(CREATE_LINK kestil.1 ${kestil_link_dir}/man1/${name}.1 SYMBOLIC)
  list(APPEND kestil_bin_links ${kestil_link_dir}/bin/${name})
  list(APPEND kestil_man_links ${kestil_link_dir}/man1/${name}.1)
endforeach()
# bash-completion loads a command's completion by the command's name.
foreach(name IN LISTS KESTIL_COMMAND_NAMES ITEMS kestil-sim kestil-pass)
  file(CREATE_LINK kestil ${kestil_link_dir}/completions/${name} SYMBOLIC)
  list(APPEND kestil_completion_links ${kestil_link_dir}/completions/${name})
endforeach()

install(TARGETS kestil kestil-sim kestil-pass RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${kestil_bin_links} DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES doc/kestil.1 doc/kestil-sim.1 doc/kestil-pass.1 ${kestil_man_links} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES contrib/bash-completion/kestil ${kestil_completion_links} DESTINATION ${KESTIL_BASH_COMPLETIONDIR})
install(FILES contrib/wireshark/kestil.lua DESTINATION ${KESTIL_WIRESHARK_PLUGINDIR})
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
