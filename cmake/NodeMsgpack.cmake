# A JavaScript MessagePack encoder for the bus codec's interoperability test: the npm
# package "@msgpack/msgpack", fetched once with `npm pack` (its install scripts never run)
# into the git-ignored cache and laid out as a node_modules folder. Optional: without
# node, npm or the network the variables stay empty and the test skips itself.
#
# Defines:
#   NIMB_NODE                  path of node, or empty
#   NIMB_NODE_MODULES          folder to put on NODE_PATH, or empty

include_guard(GLOBAL)

set(NIMB_NODE_MSGPACK_VERSION 3.1.3)
# SHA-1 of msgpack-msgpack-3.1.3.tgz as the registry publishes it.
set(NIMB_NODE_MSGPACK_SHA1 c4bff2b9539faf0882f3ee03537a7e9a4b3a7864)

if(NIMB_MINIDUMP_CACHE_DIR)
    set(_nimb_cache "${NIMB_MINIDUMP_CACHE_DIR}")
else()
    set(_nimb_cache "${PROJECT_SOURCE_DIR}/.cache")
endif()
set(NIMB_NODE "")
set(NIMB_NODE_MODULES "")

function(_nimb_fetch_node_msgpack modules)
    set(_target "${modules}/@msgpack/msgpack")
    if(EXISTS "${_target}/package.json")
        return()
    endif()
    find_program(NIMB_NPM npm)
    if(NOT NIMB_NPM)
        return()
    endif()
    file(MAKE_DIRECTORY "${_nimb_cache}")
    file(LOCK "${_nimb_cache}/node-msgpack.lock" GUARD FUNCTION TIMEOUT 600)
    if(EXISTS "${_target}/package.json")
        return()
    endif()
    string(RANDOM LENGTH 8 _tag)
    set(_scratch "${_nimb_cache}/.fetch-${_tag}")
    file(MAKE_DIRECTORY "${_scratch}")
    execute_process(
        COMMAND "${NIMB_NPM}" pack --ignore-scripts --silent
                "@msgpack/msgpack@${NIMB_NODE_MSGPACK_VERSION}"
        WORKING_DIRECTORY "${_scratch}"
        RESULT_VARIABLE _rc
        OUTPUT_QUIET ERROR_QUIET
        TIMEOUT 300)
    set(_tgz "${_scratch}/msgpack-msgpack-${NIMB_NODE_MSGPACK_VERSION}.tgz")
    if(_rc EQUAL 0 AND EXISTS "${_tgz}")
        file(SHA1 "${_tgz}" _sha1)
        if(_sha1 STREQUAL NIMB_NODE_MSGPACK_SHA1)
            file(ARCHIVE_EXTRACT INPUT "${_tgz}" DESTINATION "${_scratch}/root")
            file(MAKE_DIRECTORY "${modules}/@msgpack")
            file(RENAME "${_scratch}/root/package" "${_target}")
        else()
            message(WARNING "msgpack-msgpack-${NIMB_NODE_MSGPACK_VERSION}.tgz has SHA-1 "
                            "${_sha1}, expected ${NIMB_NODE_MSGPACK_SHA1}")
        endif()
    endif()
    file(REMOVE_RECURSE "${_scratch}")
endfunction()

find_program(_nimb_node NAMES node nodejs)
if(_nimb_node)
    set(_modules "${_nimb_cache}/node-msgpack-${NIMB_NODE_MSGPACK_VERSION}/node_modules")
    _nimb_fetch_node_msgpack("${_modules}")
    if(EXISTS "${_modules}/@msgpack/msgpack/package.json")
        set(NIMB_NODE "${_nimb_node}")
        set(NIMB_NODE_MODULES "${_modules}")
    else()
        message(STATUS "@msgpack/msgpack not available: the JavaScript interoperability test skips")
    endif()
endif()
