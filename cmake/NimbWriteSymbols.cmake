# Writes the Breakpad symbol file of one program into the symbol store (run with -P by the
# commands of nimb_add_symbols):
#
#   cmake -DDUMP_SYMS=<dump_syms> -DPROGRAM=<binary> -DSTORE=<store> -DSTAMP=<file>
#         -P NimbWriteSymbols.cmake
#
# The file's first line, "MODULE <os> <arch> <id> <module>", names its place in the store:
# <store>/<module>/<id>/<module>.sym. Files of earlier links of the module (other ids) are
# removed, so the store keeps one file per module. The file is written beside its place
# first and renamed into it, so a reader never sees half of one.

foreach(var IN ITEMS DUMP_SYMS PROGRAM STORE STAMP)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "NimbWriteSymbols.cmake needs -D${var}=...")
    endif()
endforeach()

get_filename_component(_name "${PROGRAM}" NAME)
file(MAKE_DIRECTORY "${STORE}")
set(_scratch "${STORE}/.${_name}.sym.part")
execute_process(COMMAND "${DUMP_SYMS}" "${PROGRAM}"
    OUTPUT_FILE "${_scratch}"
    ERROR_VARIABLE _errors
    RESULT_VARIABLE _rc)
if(NOT _rc EQUAL 0)
    file(REMOVE "${_scratch}")
    message(FATAL_ERROR "dump_syms ${PROGRAM} failed (${_rc}): ${_errors}")
endif()

file(STRINGS "${_scratch}" _header LIMIT_COUNT 1)
if(NOT _header MATCHES "^MODULE [^ ]+ [^ ]+ ([0-9A-F]+) (.+)$")
    file(REMOVE "${_scratch}")
    message(FATAL_ERROR "dump_syms ${PROGRAM} wrote no MODULE line (\"${_header}\")")
endif()
set(_id "${CMAKE_MATCH_1}")
set(_module "${CMAKE_MATCH_2}")

file(GLOB _old LIST_DIRECTORIES true "${STORE}/${_module}/*")
foreach(_folder IN LISTS _old)
    if(NOT _folder STREQUAL "${STORE}/${_module}/${_id}")
        file(REMOVE_RECURSE "${_folder}")
    endif()
endforeach()
file(MAKE_DIRECTORY "${STORE}/${_module}/${_id}")
file(RENAME "${_scratch}" "${STORE}/${_module}/${_id}/${_module}.sym")
file(TOUCH "${STAMP}")
