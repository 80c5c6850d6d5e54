# Debian packages, made with `cpack -G DEB` in the build folder: the runtime library, its
# development files (headers, CMake package, pkg-config file) and the tools.
set(CPACK_PACKAGE_NAME information-api)
set(CPACK_PACKAGE_VENDOR "information_api developers")
set(CPACK_PACKAGE_CONTACT "information_api developers <information-api@example.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Keeps product-usage records of a desktop application and sends them to a collection service")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Library dependencies (Qt, glog, OpenSSL, ...) as dpkg-shlibdeps finds them in the binaries.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/information_api)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libinformation-api1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libinformation-api-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libinformation-api1 (= ${PROJECT_VERSION}), qtbase5-dev (>= 5.15)")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME information-api-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# libjs-chart.js: the dashboard of information_collector serves its charting library from there.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libinformation-api1 (= ${PROJECT_VERSION}), libjs-chart.js (>= 3.9)")
include(CPack)
