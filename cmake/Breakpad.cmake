# Breakpad's Linux client, built from the source tree that the npm package "minidump"
# ships. The package is fetched once with `npm pack` (which never runs the package's own
# install scripts) into a git-ignored cache and reused from there; nothing of it is
# committed. The same package brings prebuilt minidump_stackwalk and minidump_dump, which
# the tests use to read dumps back.
#
# Defines:
#   nimb_breakpad                  static library (include directories come with it)
#   NIMB_MINIDUMP_STACKWALK        path of the prebuilt minidump_stackwalk
#   NIMB_MINIDUMP_DUMP             path of the prebuilt minidump_dump
#   nimb_dump_syms                 host tool that writes a program's Breakpad symbol file
#
# Cache:
#   NIMB_MINIDUMP_CACHE_DIR        where the extracted package is kept (default <source>/.cache)

include_guard(GLOBAL)

set(NIMB_MINIDUMP_VERSION 0.26.0)
# SHA-1 of minidump-0.26.0.tgz as the registry publishes it.
set(NIMB_MINIDUMP_SHA1 a977510d92ad35b2a8217fc53b2abaf4d6f1404a)
set(NIMB_MINIDUMP_CACHE_DIR "${PROJECT_SOURCE_DIR}/.cache" CACHE PATH
    "Folder that keeps the extracted minidump package (Breakpad sources and tools)")

set(_md_root "${NIMB_MINIDUMP_CACHE_DIR}/minidump-${NIMB_MINIDUMP_VERSION}")
set(_md_package "${_md_root}/package")

# Fetches and extracts the package unless a complete copy is already cached. The copy is
# extracted into a scratch folder and renamed into place, so an interrupted fetch never
# leaves a half-filled cache behind; a lock keeps two configures of the same tree from
# fetching at once.
function(_nimb_fetch_minidump)
    set(_complete "${_md_package}/deps/breakpad/src/client/linux/handler/exception_handler.cc")
    if(EXISTS "${_complete}")
        return()
    endif()
    file(MAKE_DIRECTORY "${NIMB_MINIDUMP_CACHE_DIR}")
    file(LOCK "${NIMB_MINIDUMP_CACHE_DIR}/minidump.lock" GUARD FUNCTION TIMEOUT 600)
    if(EXISTS "${_complete}")
        return()
    endif()
    find_program(NIMB_NPM npm)
    if(NOT NIMB_NPM)
        message(FATAL_ERROR "npm is needed to fetch Breakpad (package minidump "
                            "${NIMB_MINIDUMP_VERSION}); run scripts/setup.sh")
    endif()
    string(RANDOM LENGTH 8 _tag)
    set(_scratch "${NIMB_MINIDUMP_CACHE_DIR}/.fetch-${_tag}")
    file(MAKE_DIRECTORY "${_scratch}")
    message(STATUS "Fetching minidump@${NIMB_MINIDUMP_VERSION} (Breakpad sources) with npm")
    execute_process(
        COMMAND "${NIMB_NPM}" pack --ignore-scripts --silent "minidump@${NIMB_MINIDUMP_VERSION}"
        WORKING_DIRECTORY "${_scratch}"
        RESULT_VARIABLE _rc
        OUTPUT_QUIET)
    set(_tgz "${_scratch}/minidump-${NIMB_MINIDUMP_VERSION}.tgz")
    if(NOT _rc EQUAL 0 OR NOT EXISTS "${_tgz}")
        file(REMOVE_RECURSE "${_scratch}")
        message(FATAL_ERROR "npm pack minidump@${NIMB_MINIDUMP_VERSION} failed (${_rc})")
    endif()
    file(SHA1 "${_tgz}" _sha1)
    if(NOT _sha1 STREQUAL NIMB_MINIDUMP_SHA1)
        file(REMOVE_RECURSE "${_scratch}")
        message(FATAL_ERROR "minidump-${NIMB_MINIDUMP_VERSION}.tgz has SHA-1 ${_sha1}, "
                            "expected ${NIMB_MINIDUMP_SHA1}")
    endif()
    file(ARCHIVE_EXTRACT INPUT "${_tgz}" DESTINATION "${_scratch}/root")
    file(REMOVE_RECURSE "${_md_root}")
    file(RENAME "${_scratch}/root" "${_md_root}")
    file(REMOVE_RECURSE "${_scratch}")
endfunction()

_nimb_fetch_minidump()

set(NIMB_MINIDUMP_STACKWALK "${_md_package}/bin/linux-x64/minidump_stackwalk")
set(NIMB_MINIDUMP_DUMP "${_md_package}/bin/linux-x64/minidump_dump")

set(_bp "${_md_package}/deps/breakpad/src")
set(_bp_sources
    client/linux/crash_generation/crash_generation_client.cc
    client/linux/dump_writer_common/thread_info.cc
    client/linux/dump_writer_common/ucontext_reader.cc
    client/linux/handler/exception_handler.cc
    client/linux/handler/minidump_descriptor.cc
    client/linux/log/log.cc
    client/linux/microdump_writer/microdump_writer.cc
    client/linux/minidump_writer/linux_dumper.cc
    client/linux/minidump_writer/linux_ptrace_dumper.cc
    client/linux/minidump_writer/minidump_writer.cc
    client/linux/minidump_writer/pe_file.cc
    client/minidump_file_writer.cc
    common/convert_UTF.cc
    common/md5.cc
    common/string_conversion.cc
    common/linux/breakpad_getcontext.S
    common/linux/elf_core_dump.cc
    common/linux/elfutils.cc
    common/linux/file_id.cc
    common/linux/guid_creator.cc
    common/linux/linux_libc_support.cc
    common/linux/memory_mapped_file.cc
    common/linux/safe_readlink.cc)
list(TRANSFORM _bp_sources PREPEND "${_bp}/")

enable_language(ASM)

# Third-party code: built with its own defaults, none of the project's warning flags and
# never with -Werror (its syscall header uses constructs that g++ 12 deprecates).
add_library(nimb_breakpad STATIC ${_bp_sources})
target_include_directories(nimb_breakpad SYSTEM PUBLIC "${_bp}" "${_md_package}/deps")
# The assembly file carries no stack note of its own; without this flag the linker
# would mark every program that links it as needing an executable stack.
target_compile_options(nimb_breakpad PRIVATE -w $<$<COMPILE_LANGUAGE:ASM>:-Wa,--noexecstack>)
target_link_libraries(nimb_breakpad PUBLIC Threads::Threads)
set_target_properties(nimb_breakpad PROPERTIES POSITION_INDEPENDENT_CODE ON CXX_STANDARD 17)

# dump_syms, built from the same sources as a host tool: it reads a program's debug
# information and writes the text symbol file that minidump_stackwalk uses to name
# functions and source lines (cmake/NimbSymbols.cmake runs it for every installed program).
# Only what the Linux tool needs: DWARF and ELF symbol readers; no Rust demangling and no
# STABS (a debug format the compilers here do not write).
find_package(ZLIB REQUIRED)
set(_dump_syms_sources
    common/dwarf_cfi_to_module.cc
    common/dwarf_cu_to_module.cc
    common/dwarf_line_to_module.cc
    common/dwarf_range_list_handler.cc
    common/language.cc
    common/module.cc
    common/path_helper.cc
    common/dwarf/bytereader.cc
    common/dwarf/dwarf2diehandler.cc
    common/dwarf/dwarf2reader.cc
    common/dwarf/elf_reader.cc
    common/linux/crc32.cc
    common/linux/dump_symbols.cc
    common/linux/elf_symbols_to_module.cc
    common/linux/elfutils.cc
    common/linux/file_id.cc
    common/linux/linux_libc_support.cc
    common/linux/memory_mapped_file.cc
    common/linux/safe_readlink.cc
    tools/linux/dump_syms/dump_syms.cc)
list(TRANSFORM _dump_syms_sources PREPEND "${_bp}/")
add_executable(nimb_dump_syms ${_dump_syms_sources})
target_include_directories(nimb_dump_syms SYSTEM PRIVATE "${_bp}" "${_md_package}/deps")
target_compile_definitions(nimb_dump_syms PRIVATE NO_STABS_SUPPORT)
target_compile_options(nimb_dump_syms PRIVATE -w)
target_link_libraries(nimb_dump_syms PRIVATE ZLIB::ZLIB)
set_target_properties(nimb_dump_syms PROPERTIES OUTPUT_NAME dump_syms CXX_STANDARD 17)
