# Value primitives: VARIANT, SAFEARRAY, BSTR.
add_library(nimb_kibvalue INTERFACE)
target_include_directories(nimb_kibvalue INTERFACE ${CMAKE_CURRENT_SOURCE_DIR}/include)
