# The bus library: KibSatellite over NATS with the MessagePack wire format.
# Debian's cnats CMake package names a static archive it does not ship, so the
# shared library is found directly.
if(NOT TARGET nimb_nats)
    find_library(NIMB_NATS_LIBRARY NAMES nats REQUIRED)
    find_path(NIMB_NATS_INCLUDE_DIR nats/nats.h REQUIRED)
    add_library(nimb_nats INTERFACE)
    target_link_libraries(nimb_nats INTERFACE ${NIMB_NATS_LIBRARY})
    target_include_directories(nimb_nats INTERFACE ${NIMB_NATS_INCLUDE_DIR})
endif()
find_package(msgpack CONFIG REQUIRED)

set(NIMB_KIB_SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/KibAvailability.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibAvailability.h
    ${CMAKE_CURRENT_LIST_DIR}/KibCodec.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibCodec.h
    ${CMAKE_CURRENT_LIST_DIR}/KibCredentials.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibCredentials.h
    ${CMAKE_CURRENT_LIST_DIR}/KibDropReport.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibDropReport.h
    ${CMAKE_CURRENT_LIST_DIR}/KibLog.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibLog.h
    ${CMAKE_CURRENT_LIST_DIR}/KibNats.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibNats.h
    ${CMAKE_CURRENT_LIST_DIR}/KibRefusals.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibRefusals.h
    ${CMAKE_CURRENT_LIST_DIR}/KibReplyChannel.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibReplyChannel.h
    ${CMAKE_CURRENT_LIST_DIR}/KibReplyLink.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibReplyLink.h
    ${CMAKE_CURRENT_LIST_DIR}/KibSatellite.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibSatelliteImpl.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibSatelliteImpl.h
    ${CMAKE_CURRENT_LIST_DIR}/KibSatelliteMessages.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibStatus.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibValueCodec.cpp
    ${CMAKE_CURRENT_LIST_DIR}/KibValueCodec.h
    ${CMAKE_CURRENT_LIST_DIR}/include/KibConnectOptions.h
    ${CMAKE_CURRENT_LIST_DIR}/include/KibDeferredReply.h
    ${CMAKE_CURRENT_LIST_DIR}/include/KibReply.h
    ${CMAKE_CURRENT_LIST_DIR}/include/KibReplyBatch.h
    ${CMAKE_CURRENT_LIST_DIR}/include/KibSatellite.h
    ${CMAKE_CURRENT_LIST_DIR}/include/KibSatelliteDelegate.h
    ${CMAKE_CURRENT_LIST_DIR}/include/KibStatus.h
    ${CMAKE_CURRENT_LIST_DIR}/include/KibSubjects.h)
add_library(nimb_kib STATIC ${NIMB_KIB_SOURCES})
# Public headers only; the internals (codec, transport) are reachable through the
# separate nimb_kib_internal interface, for the library's own tests, fuzzer and benchmark.
target_include_directories(nimb_kib PUBLIC ${CMAKE_CURRENT_LIST_DIR}/include
                                    PRIVATE ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(nimb_kib PUBLIC nimb_kibvalue Boost::boost
                               PRIVATE nimb_nats nimb_log Threads::Threads)
target_link_libraries(nimb_kib PRIVATE msgpackc-cxx)
# Handlers throw the KibException family, which lives in the variant module.
target_link_libraries(nimb_kib PUBLIC nimb_variant)
set_target_properties(nimb_kib PROPERTIES POSITION_INDEPENDENT_CODE ON)
nimb_target_defaults(nimb_kib)

add_library(nimb_kib_internal INTERFACE)
target_include_directories(nimb_kib_internal INTERFACE ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(nimb_kib_internal INTERFACE nimb_kib nimb_nats msgpackc-cxx)

# The codec's fuzzer and seed writer live in fuzz/ at the top of the tree.
if(EXISTS ${PROJECT_SOURCE_DIR}/fuzz/CMakeLists.txt)
    add_subdirectory(${PROJECT_SOURCE_DIR}/fuzz ${PROJECT_BINARY_DIR}/fuzz)
endif()
