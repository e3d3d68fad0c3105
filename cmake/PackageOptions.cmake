# Read by cpack for each generator.

# Every package has a summary of its own, to which this one would be prepended.
unset(CPACK_PACKAGE_DESCRIPTION_SUMMARY)

# The source archive comes from the tree, everything else from the build folder.
if(CPACK_GENERATOR STREQUAL "TGZ")
  set(CPACK_INSTALL_COMMANDS "")
  set(CPACK_INSTALL_CMAKE_PROJECTS "")
  set(CPACK_INSTALLED_DIRECTORIES "")
  set(CPACK_INSTALL_SCRIPTS "${CPACK_KOR_SOURCE_DIR}/cmake/SourceArchive.cmake")
  set(CPACK_PACKAGING_INSTALL_PREFIX "")
  set(CPACK_STRIP_FILES OFF)
endif()
