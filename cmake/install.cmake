# Install rules, the pkg-config file, the CMake package and the Debian
# packages of the library. Two components: "runtime" holds cache.so and,
# beside it, the link cache.so.<major> (its SONAME); "dev" the header, cache.pc
# and the CMake package.
include(CMakePackageConfigHelpers)

# The header's version macros and the project's version must agree.
file(STRINGS ${PROJECT_SOURCE_DIR}/cache/cache.h version_lines
     REGEX "^#define CACHE_VERSION_(MAJOR|MINOR|PATCH) ")
set(header_version "")
foreach(part MAJOR MINOR PATCH)
  string(REGEX MATCH "CACHE_VERSION_${part} ([0-9]+)" _ "${version_lines}")
  list(APPEND header_version ${CMAKE_MATCH_1})
endforeach()
list(JOIN header_version "." header_version)
if(NOT header_version STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "cache/cache.h says version ${header_version}, the project ${PROJECT_VERSION}")
endif()

set(CACHE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/cache)

install(TARGETS cache EXPORT cacheTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
if(CACHE_SONAME)
  # The build tree's link cache.so.<major> -> cache.so, installed as a link.
  install(FILES $<TARGET_FILE_DIR:cache>/${CACHE_SONAME}
    DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
endif()
install(FILES cache/cache.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/cache COMPONENT dev)
install(EXPORT cacheTargets NAMESPACE cache:: DESTINATION ${CACHE_CMAKE_DIR} COMPONENT dev)

# The exported target names the file as its SONAME; cacheConfig.cmake
# corrects that to CACHE_SONAME.
configure_package_config_file(cmake/cacheConfig.cmake.in
  ${PROJECT_BINARY_DIR}/cacheConfig.cmake INSTALL_DESTINATION ${CACHE_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cacheConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cacheConfig.cmake ${PROJECT_BINARY_DIR}/cacheConfigVersion.cmake
  DESTINATION ${CACHE_CMAKE_DIR} COMPONENT dev)

# cache.pc finds the prefix from its own place, so an installed tree can be
# moved or unpacked anywhere.
file(RELATIVE_PATH pc_to_prefix
  ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/cache.pc.in ${PROJECT_BINARY_DIR}/cache.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/cache.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/cache COMPONENT runtime)

# cpack -G DEB: cache0 (the library) and cache-dev (what a host builds with).
set(CPACK_PACKAGE_NAME cache)
set(CPACK_PACKAGE_VENDOR "the cache authors")
set(CPACK_PACKAGE_CONTACT "the cache authors <cache@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Local disk cache for the content of remote files")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME cache${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libjansson4 (>= 2.13), libstdc++6, libgcc-s1, libc6")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME cache-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "cache${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), pkg-config")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "the shared library cache.so and its SONAME link")
set(CPACK_COMPONENT_DEV_DESCRIPTION "header, pkg-config file and CMake package of cache.so")
include(CPack)
