# What CPack makes of the four components.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qmlogcache)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Packages of a later commit are newer ones: the time is SOURCE_DATE_EPOCH, the commit's.
string(TIMESTAMP commit_time "%Y%m%d%H%M%S" UTC)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1+git${commit_time})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGE_CONTACT "qmlogcache maintainers <maintainers@qmlogcache.invalid>")
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(components library client host development)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)

set(full_version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libqmlogcache1)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "log cache component and its platform library
The log cache of an endpoint security agent: takes log records, writes them
to disk, sends the important ones first and forgets each only when the server
has it. A plug-in host loads the component; qmlogcache brings one.")

set(CPACK_DEBIAN_HOST_PACKAGE_NAME qmlogcache)
set(CPACK_DEBIAN_HOST_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS "libqmlogcache1 (= ${full_version}), adduser, init-system-helpers (>= 1.52)")
set(CPACK_DEBIAN_HOST_DESCRIPTION "store-and-forward service for log records
A service that takes records from local producers, keeps them on disk through
outages, crashes and restarts, and delivers them to a file, an HTTP server or
a NATS cluster. With it come qmsend, which sends records from shells and
services, and qmcache, which looks into what is held.")
set(CPACK_DEBIAN_HOST_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/conffiles
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/postinst
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/prerm
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/postrm)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqmlogcache-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libqmlogcache1 (= ${full_version}), libqmclient0 (= ${full_version})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "headers for hosts and producers of the log cache component
What a program needs to load the log cache component: the interfaces between
a plug-in and its host, the platform library's headers, and a small host as
an example. What a producer in C needs to hand records to a host stands beside
it.")

set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME libqmclient0)
set(CPACK_DEBIAN_CLIENT_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_CLIENT_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/shlibs
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/triggers)
set(CPACK_DEBIAN_CLIENT_DESCRIPTION "hands records to the log cache from a program
A small C library that does for programs what qmsend does for shells: it takes
records, hands them to the log cache's host, and tells what became of each.")

set(names_library libqmlogcache1)
set(names_host qmlogcache)
set(names_development libqmlogcache-dev)
set(names_client libqmclient0)
foreach(component IN LISTS components)
  set(doc share/doc/${names_${component}})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz ${CMAKE_CURRENT_SOURCE_DIR}/debian/copyright
    DESTINATION ${doc} COMPONENT ${component})
endforeach()
install(FILES debian/qmlogcache.lintian-overrides DESTINATION share/lintian/overrides RENAME qmlogcache COMPONENT host)
include(CPack)
