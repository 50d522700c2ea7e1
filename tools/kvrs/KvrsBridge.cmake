# kvrs_add_bridge(target): adds `kvrs bridge` to the tool when libmosquitto
# (pkg-config libmosquitto) is found, and sets KVRS_HAVE_BRIDGE for the tests
# and benchmarks. The i386 build never has it: Debian has no i386 libmosquitto
# on an amd64 machine.
find_package(PkgConfig QUIET)
set(KVRS_HAVE_BRIDGE OFF CACHE INTERNAL "kvrs bridge is built")
if(PKG_CONFIG_FOUND AND NOT KV_M32)
  pkg_check_modules(KVRS_MOSQUITTO QUIET libmosquitto)
endif()
if(KVRS_MOSQUITTO_FOUND)
  set(KVRS_HAVE_BRIDGE ON CACHE INTERNAL "kvrs bridge is built")
else()
  get_property(reported GLOBAL PROPERTY KVRS_BRIDGE_REPORTED)
  if(NOT reported)
    message(STATUS "libmosquitto not found (or an i386 build): kvrs is built without `bridge`")
    set_property(GLOBAL PROPERTY KVRS_BRIDGE_REPORTED ON)
  endif()
endif()

function(kvrs_add_bridge target)
  if(NOT KVRS_HAVE_BRIDGE)
    return()
  endif()
  file(GLOB bridge_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/KvrsBridge*.cpp)
  target_sources(${target} PRIVATE ${bridge_sources})
  target_compile_definitions(${target} PRIVATE KVRS_HAVE_BRIDGE)
  target_include_directories(${target} PRIVATE ${KVRS_MOSQUITTO_INCLUDE_DIRS})
  target_link_libraries(${target} PRIVATE ${KVRS_MOSQUITTO_LINK_LIBRARIES})
endfunction()
