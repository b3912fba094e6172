# Value primitives: VARIANT, SAFEARRAY, BSTR.
add_library(nimb_kibvalue STATIC
    ${CMAKE_CURRENT_LIST_DIR}/value/KibBstr.cpp
    ${CMAKE_CURRENT_LIST_DIR}/value/KibElement.cpp
    ${CMAKE_CURRENT_LIST_DIR}/value/KibElement.h
    ${CMAKE_CURRENT_LIST_DIR}/value/KibSafeArray.cpp
    ${CMAKE_CURRENT_LIST_DIR}/value/KibVariantOps.cpp
    ${CMAKE_CURRENT_LIST_DIR}/include/KibVariant.h
    ${CMAKE_CURRENT_LIST_DIR}/include/KibVariantHolder.h)
target_include_directories(nimb_kibvalue PUBLIC ${CMAKE_CURRENT_LIST_DIR}/include
                                         PRIVATE ${CMAKE_CURRENT_LIST_DIR}/value)
set_target_properties(nimb_kibvalue PROPERTIES POSITION_INDEPENDENT_CODE ON)
nimb_target_defaults(nimb_kibvalue)
