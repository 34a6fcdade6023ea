# Debian packages (cpack -G DEB in a build tree): libzarnrtc0 (runtime) and
# libzarnrtc-dev (headers, .so link, CMake and pkg-config files, fake engines), plus
# zarnrtc-host-engines where the host engines were built. The architecture follows
# the compiler, so the armhf build tree gives armhf packages.
set(ZARNRTC_PACKAGE_MAINTAINER "ZarnRtc developers <zarnrtc-dev@example.org>"
    CACHE STRING "Maintainer field of the Debian packages")

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(arm|armv7.*)$")
  set(_deb_arch armhf)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(_deb_arch arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(_deb_arch amd64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^i.86$")
  set(_deb_arch i386)
else()
  set(_deb_arch ${CMAKE_SYSTEM_PROCESSOR})
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zarnrtc)
set(CPACK_PACKAGE_VENDOR "ZarnRtc")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${ZARNRTC_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
# Anything else a subdirectory installs (examples, tools) stays out of the packages.
set(CPACK_COMPONENTS_ALL runtime dev testing)
if(ZARNRTC_INSTALLED_ENGINES)
  list(APPEND CPACK_COMPONENTS_ALL engines)
endif()

set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${_deb_arch})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${ZARNRTC_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The toolchain's runtime (Debian 12: glibc 2.36, GCC 12) on host and device alike:
# dpkg-shlibdeps cannot be asked about armhf libraries on an amd64 build machine.
set(ZARNRTC_DEB_RUNTIME_DEPENDS "libc6 (>= 2.36), libstdc++6 (>= 12), libgcc-s1 (>= 3.5)"
    CACHE STRING "Depends of the Debian packages on the C/C++ runtime")
set(_runtime_depends "${ZARNRTC_DEB_RUNTIME_DEPENDS}")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzarnrtc${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${_runtime_depends}")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "Runtime library. libzarnrtc joins a SIP signalling engine (libsipengine)
and a WebRTC media engine (libmediaengine) into one call API for video door
phones and indoor monitors. The engines are not part of this package.")
# Run ldconfig after the library is installed or removed.
file(WRITE ${PROJECT_BINARY_DIR}/deb-runtime/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/deb-runtime/triggers)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzarnrtc-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libzarnrtc${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), ${_runtime_depends}")
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "Development files: headers (the SDK and the SIP and media engine
interfaces), the CMake package (find_package(zarnrtc)), pkg-config files, and
recording fake engines (zarnrtc::testing, zarnrtc-testing.pc) for testing
applications without a network.")

if(ZARNRTC_INSTALLED_ENGINES)
  set(CPACK_DEBIAN_ENGINES_PACKAGE_NAME zarnrtc-host-engines)
  set(CPACK_DEBIAN_ENGINES_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_ENGINES_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_ENGINES_DESCRIPTION
      "Host engines: libsipengine and libmediaengine for Linux hosts without vendor engines.
With the two small libraries both engines share: the engine link and the engines'
settings (docs/settings.md).")
endif()

# Everything above is written into CPackConfig.cmake here; the component calls
# below append to it.
include(CPack)

cpack_add_component_group(runtime)
cpack_add_component_group(dev)
cpack_add_component(runtime DISPLAY_NAME "ZarnRtc runtime library" GROUP runtime)
cpack_add_component(dev DISPLAY_NAME "ZarnRtc development files" GROUP dev DEPENDS runtime)
cpack_add_component(testing DISPLAY_NAME "ZarnRtc fake engines for tests" GROUP dev
                    DEPENDS dev)
if(ZARNRTC_INSTALLED_ENGINES)
  cpack_add_component_group(engines)
  cpack_add_component(engines DISPLAY_NAME "ZarnRtc host engines" GROUP engines)
endif()
