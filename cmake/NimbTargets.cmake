# Per-target build settings: warnings, sanitizers and the library/test helpers.

# Applies the project's warnings and (when enabled) sanitizers to one target.
function(nimb_target_defaults target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Woverloaded-virtual -Wshadow)
    if(NIMB_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
    if(NIMB_SANITIZE)
        target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-omit-frame-pointer
                                                 -fno-sanitize-recover=undefined)
        target_link_options(${target} PRIVATE -fsanitize=address,undefined)
    endif()
endfunction()

# nimb_add_library(<name> SOURCES ... [PUBLIC_LIBS ...] [PRIVATE_LIBS ...] [AUTOMOC])
# A static library whose folder is its public include directory.
function(nimb_add_library name)
    cmake_parse_arguments(ARG "AUTOMOC" "" "SOURCES;PUBLIC_LIBS;PRIVATE_LIBS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_LIBS} PRIVATE ${ARG_PRIVATE_LIBS})
    set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
    if(ARG_AUTOMOC)
        set_target_properties(${name} PROPERTIES AUTOMOC ON)
    endif()
    nimb_target_defaults(${name})
endfunction()

# nimb_add_executable(<name> SOURCES ... [LIBS ...] [AUTOMOC])
function(nimb_add_executable name)
    cmake_parse_arguments(ARG "AUTOMOC" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS})
    if(ARG_AUTOMOC)
        set_target_properties(${name} PROPERTIES AUTOMOC ON)
    endif()
    nimb_target_defaults(${name})
endfunction()

# nimb_add_test(<name> SOURCES ... [LIBS ...] [AUTOMOC])
# One GoogleTest executable per module; its cases are registered with CTest.
function(nimb_add_test name)
    cmake_parse_arguments(ARG "AUTOMOC" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gtest_main Threads::Threads)
    if(ARG_AUTOMOC)
        set_target_properties(${name} PROPERTIES AUTOMOC ON)
    endif()
    nimb_target_defaults(${name})
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

# Adds every direct subfolder of the current folder that has a CMakeLists.txt (tools,
# their tests, benchmarks: one folder each).
function(nimb_add_subfolders)
    file(GLOB dirs LIST_DIRECTORIES true ${CMAKE_CURRENT_SOURCE_DIR}/*)
    foreach(dir IN LISTS dirs)
        if(IS_DIRECTORY ${dir} AND EXISTS ${dir}/CMakeLists.txt)
            add_subdirectory(${dir})
        endif()
    endforeach()
endfunction()
