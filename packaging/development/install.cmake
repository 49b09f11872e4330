# What a host of one's own is built with: headers, the platform library, the text form of identifiers, for pkg-config and
# for CMake, and an example; and what a producer in C is built with.
set(headers plugin/compctx/component_context.h plugin/compctx/guid.h plugin/compctx/message_types.h
  plugin/compctx/plugin_api.h platform/api.h platform/base64.h platform/cpstring.h platform/critical_section.h
  platform/event.h platform/file_info.h platform/ini_reader.h platform/json_parse.h platform/log.h platform/msg_queue.h
  platform/status_codes.h platform/storage_sync.h platform/thread_annotations.h)
foreach(header IN LISTS headers)
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${PROJECT_SOURCE_DIR}/src/${header} DESTINATION include/qmlogcache/${folder} COMPONENT development)
endforeach()

# The functions of guid.h.
add_library(qmcompctx STATIC ${PROJECT_SOURCE_DIR}/src/plugin/compctx/guid.cpp)
target_include_directories(qmcompctx PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>)
install(TARGETS qmcompctx EXPORT qmlogcache ARCHIVE DESTINATION lib/qmlogcache/lib COMPONENT development
  INCLUDES DESTINATION include/qmlogcache)

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qmlogcache)
install(EXPORT qmlogcache NAMESPACE qmlogcache:: FILE qmlogcache-targets.cmake DESTINATION ${config_dir}
  COMPONENT development)
include(CMakePackageConfigHelpers)
configure_package_config_file(development/qmlogcache-config.cmake.in ${generated}/qmlogcache-config.cmake
  INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(${generated}/qmlogcache-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${generated}/qmlogcache-config.cmake ${generated}/qmlogcache-config-version.cmake
  DESTINATION ${config_dir} COMPONENT development)
get_target_property(qmclient_version qmclient VERSION)
foreach(library qmlogcache qmclient)
  configure_file(development/${library}.pc.in ${library}.pc @ONLY)
  install(FILES ${generated}/${library}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()
install(FILES example-host/example_host.cpp example-host/CMakeLists.txt
  DESTINATION share/doc/libqmlogcache-dev/examples/host COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/client/examples/send_lines.c
  DESTINATION share/doc/libqmlogcache-dev/examples/producer COMPONENT development)
