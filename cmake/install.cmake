# Install rules, CMake package, pkg-config files and Debian packages.
#
# Components:
#   runtime  libzarnrtc.so.0*                      -> libzarnrtc0
#   dev      headers, .so link, CMake package, .pc -> libzarnrtc-dev
#   testing  fake engines and their headers        -> libzarnrtc-dev
#   engines  host libsipengine/libmediaengine and their link and settings libraries
#                                                  -> zarnrtc-host-engines (when built)
include(CMakePackageConfigHelpers)

set(ZARNRTC_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/zarnrtc)
set(ZARNRTC_INSTALL_INCDIR ${CMAKE_INSTALL_INCLUDEDIR}/zarnrtc)

# ---- SDK ----
set_target_properties(zarnrtc_sip_api PROPERTIES EXPORT_NAME sip_api)
set_target_properties(zarnrtc_webrtc_api PROPERTIES EXPORT_NAME webrtc_api)
install(TARGETS zarnrtc zarnrtc_sip_api zarnrtc_webrtc_api EXPORT zarnrtcTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          COMPONENT runtime
          NAMELINK_COMPONENT dev)
# The engine interfaces go with the SDK headers: applications compile against
# exactly the interfaces the library was built with.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/headers/
  DESTINATION ${ZARNRTC_INSTALL_INCDIR}
  COMPONENT dev
  FILES_MATCHING PATTERN "*.h")
install(EXPORT zarnrtcTargets
  NAMESPACE zarnrtc::
  DESTINATION ${ZARNRTC_INSTALL_CMAKEDIR}
  COMPONENT dev)

# ---- Fake engines ----
set_target_properties(zarnrtc_fakelog PROPERTIES EXPORT_NAME fakelog)
set_target_properties(zarnrtc_fakesip PROPERTIES EXPORT_NAME fakesip)
set_target_properties(zarnrtc_fakemedia PROPERTIES EXPORT_NAME fakemedia)
set_target_properties(zarnrtc_testing PROPERTIES EXPORT_NAME testing)
# The fakes find their shared log beside them, wherever the tree is installed.
set_target_properties(zarnrtc_fakesip zarnrtc_fakemedia PROPERTIES INSTALL_RPATH "$ORIGIN")
target_include_directories(zarnrtc_fakelog PUBLIC
  "$<INSTALL_INTERFACE:${ZARNRTC_INSTALL_INCDIR}/testing>"
  "$<INSTALL_INTERFACE:${ZARNRTC_INSTALL_INCDIR}>")
install(TARGETS zarnrtc_fakelog zarnrtc_fakesip zarnrtc_fakemedia zarnrtc_testing
  EXPORT zarnrtcTestingTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT testing)
install(FILES
  ${PROJECT_SOURCE_DIR}/testing/fake_log.h
  ${PROJECT_SOURCE_DIR}/testing/null_text.h
  ${PROJECT_SOURCE_DIR}/testing/fake_sip.h
  ${PROJECT_SOURCE_DIR}/testing/fake_media.h
  DESTINATION ${ZARNRTC_INSTALL_INCDIR}/testing
  COMPONENT testing)
install(EXPORT zarnrtcTestingTargets
  NAMESPACE zarnrtc::
  DESTINATION ${ZARNRTC_INSTALL_CMAKEDIR}
  COMPONENT testing)

# ---- Host engines (only where they were built) ----
set(ZARNRTC_INSTALLED_ENGINES "")
foreach(_engine hostsettings enginelink sipengine mediaengine)
  if(TARGET ${_engine})
    list(APPEND ZARNRTC_INSTALLED_ENGINES ${_engine})
    set_target_properties(${_engine} PROPERTIES EXPORT_NAME ${_engine})
  endif()
endforeach()
if(ZARNRTC_INSTALLED_ENGINES)
  install(TARGETS ${ZARNRTC_INSTALLED_ENGINES} EXPORT zarnrtcEnginesTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT engines)
  install(EXPORT zarnrtcEnginesTargets
    NAMESPACE zarnrtc::
    DESTINATION ${ZARNRTC_INSTALL_CMAKEDIR}
    COMPONENT engines)
endif()

# ---- CMake package ----
configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/zarnrtcConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zarnrtcConfig.cmake
  INSTALL_DESTINATION ${ZARNRTC_INSTALL_CMAKEDIR}
  PATH_VARS ZARNRTC_INSTALL_INCDIR)
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/zarnrtcConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/zarnrtcConfig.cmake
  ${PROJECT_BINARY_DIR}/zarnrtcConfigVersion.cmake
  DESTINATION ${ZARNRTC_INSTALL_CMAKEDIR}
  COMPONENT dev)

# ---- pkg-config ----
# Relative to the .pc file, so a staged or relocated tree works as well as /usr.
file(RELATIVE_PATH ZARNRTC_PC_TO_PREFIX
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" ZARNRTC_PC_TO_PREFIX "${ZARNRTC_PC_TO_PREFIX}")
foreach(_pc zarnrtc zarnrtc-testing)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${_pc}.pc.in ${PROJECT_BINARY_DIR}/${_pc}.pc @ONLY)
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/zarnrtc.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/zarnrtc-testing.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT testing)

include(${CMAKE_CURRENT_LIST_DIR}/Packaging.cmake)
