# Breakpad symbol files for the programs, so that crash reports name functions and source
# lines instead of "module + offset". The store is laid out as minidump_stackwalk reads it:
#
#   <store>/<module>/<id>/<module>.sym
#
# where <id> is the build id that a dump records for the module. The build keeps one
# store, NIMB_SYMBOL_STORE (<build>/symbols); each module folder there holds the files of
# its latest link only. NimbInstall.cmake installs the programs' folders as bin/symbols.
#
# nimb_add_symbols(<custom target> [ALL] PROGRAMS <target>...)
#   Makes <custom target>, which writes the symbol files of the given executables into the
#   store after each of them links (a file is rewritten only when its program changed).
#
# Builds without Breakpad (sanitizers) have no dump_syms and write no dumps; there the
# function makes an empty target.

include_guard(GLOBAL)

set(NIMB_SYMBOL_STORE "${PROJECT_BINARY_DIR}/symbols")

# Debug information as DWARF 4. With DWARF 5 (the compilers' default) dump_syms drops every
# function whose code is not in one piece (the compiler moves the rarely run parts, such as
# error paths, into a separate cold section): such functions keep their names but lose
# their source lines. Only for the builds that write dumps and only where there is debug
# information (-gdwarf-4 would turn it on in a Release build).
if(NOT NIMB_SANITIZE AND NOT NIMB_TSAN AND CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    add_compile_options(
        "$<$<AND:$<COMPILE_LANGUAGE:C,CXX>,$<CONFIG:Debug,RelWithDebInfo>>:-gdwarf-4>")
endif()

function(nimb_add_symbols name)
    cmake_parse_arguments(ARG "ALL" "" "PROGRAMS" ${ARGN})
    set(stamps)
    if(TARGET nimb_dump_syms)
        foreach(program IN LISTS ARG_PROGRAMS)
            set(stamp "${CMAKE_CURRENT_BINARY_DIR}/${program}.symbols.stamp")
            add_custom_command(OUTPUT "${stamp}"
                COMMAND ${CMAKE_COMMAND} -DDUMP_SYMS=$<TARGET_FILE:nimb_dump_syms>
                        -DPROGRAM=$<TARGET_FILE:${program}> -DSTORE=${NIMB_SYMBOL_STORE}
                        -DSTAMP=${stamp} -P ${PROJECT_SOURCE_DIR}/cmake/NimbWriteSymbols.cmake
                DEPENDS ${program} nimb_dump_syms ${PROJECT_SOURCE_DIR}/cmake/NimbWriteSymbols.cmake
                COMMENT "Writing the symbol file of ${program}"
                VERBATIM)
            list(APPEND stamps "${stamp}")
        endforeach()
    endif()
    if(ARG_ALL)
        add_custom_target(${name} ALL DEPENDS ${stamps})
    else()
        add_custom_target(${name} DEPENDS ${stamps})
    endif()
endfunction()
