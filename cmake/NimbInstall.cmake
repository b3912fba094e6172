# Installation layout (cmake --install build [--prefix P]):
#
#   P/bin/            every program of the suite and the "NimbLauncher" marker, so that
#                     the programs find their own install folder and each other (the
#                     daemon starts NimbCrashReporter from here)
#   P/bin/symbols/    the programs' Breakpad symbol files, which the crash reporter
#                     beside them uses to name functions (cmake/NimbSymbols.cmake)
#   P/share/nimb/     the systemd unit and the bus directory's (nats-server) settings
#   P/share/nimb/doc/ the pages an operator needs (operations, collector, settings, ...)
#
# Each program's install rule lives beside its target; this file adds the rest and sets
# the default prefix.

if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
    set(CMAKE_INSTALL_PREFIX /opt/pellix/nimb CACHE PATH "Install folder of the suite" FORCE)
endif()

install(FILES ${PROJECT_SOURCE_DIR}/packaging/NimbLauncher DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/nimb-remote-logger.service
              ${PROJECT_SOURCE_DIR}/packaging/nimb-web.service
              ${PROJECT_SOURCE_DIR}/packaging/nats-server.conf
              ${PROJECT_SOURCE_DIR}/packaging/nats-cluster.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/nimb)
foreach(page IN ITEMS operations collector settings logging crash-dumps bus-protocol
                     security kib-call logpush web)
    if(EXISTS ${PROJECT_SOURCE_DIR}/docs/${page}.md)
        install(FILES ${PROJECT_SOURCE_DIR}/docs/${page}.md
                DESTINATION ${CMAKE_INSTALL_DATADIR}/nimb/doc)
    endif()
endforeach()

# Every installed program, for builds that want the programs without the tests
# (scripts/run.sh builds this target, then installs). A program added to the install
# belongs in this list too.
set(_nimb_programs)
foreach(program IN ITEMS NimbRemoteLogger NimbCrashReporter nimb-logpush kib-call nimb-defaults
                        nimb-logs nimb-web)
    if(TARGET ${program})
        list(APPEND _nimb_programs ${program})
    endif()
endforeach()
add_custom_target(nimb_programs)
add_dependencies(nimb_programs ${_nimb_programs})

# Their symbol files, written after each link and installed with the programs.
nimb_add_symbols(nimb_symbols ALL PROGRAMS ${_nimb_programs})
add_dependencies(nimb_programs nimb_symbols)
if(TARGET nimb_dump_syms)
    foreach(program IN LISTS _nimb_programs)
        install(DIRECTORY ${NIMB_SYMBOL_STORE}/${program}
                DESTINATION ${CMAKE_INSTALL_BINDIR}/symbols)
    endforeach()
endif()
