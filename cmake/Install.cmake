# What `cmake --install` puts where: the headers, the libraries, the CMake package `kor` and the pkg-config
# files `kor` and `kor-trace`.
#
# Components: `library` is what programs need to run, `development` what it takes to build them, `tools` the programs.

include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)

set(KOR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kor)

install(TARGETS kor kor-trace EXPORT korTargets
  RUNTIME COMPONENT library
  LIBRARY COMPONENT library NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kor)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kor FILES_MATCHING PATTERN "*.h")
install(EXPORT korTargets NAMESPACE kor:: DESTINATION ${KOR_CMAKE_DIR})

configure_package_config_file(cmake/korConfig.cmake.in ${PROJECT_BINARY_DIR}/korConfig.cmake
  INSTALL_DESTINATION ${KOR_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/korConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/korConfig.cmake ${PROJECT_BINARY_DIR}/korConfigVersion.cmake
  DESTINATION ${KOR_CMAKE_DIR})

# Relative to its own place, so that an installed tree may be moved.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  set(KOR_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
else()
  file(RELATIVE_PATH KOR_PC_UP /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
  string(REGEX REPLACE "/$" "" KOR_PC_UP ${KOR_PC_UP})
  set(KOR_PC_PREFIX "\${pcfiledir}/${KOR_PC_UP}")
endif()
foreach(package kor kor-trace)
  configure_file(cmake/${package}.pc.in ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

if(TARGET kor-master)
  install(TARGETS kor-master kor-slave kor-trace-merge COMPONENT tools)
endif()
