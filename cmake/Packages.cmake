# What `cpack` makes of a build folder: the Debian packages libkor1, libkor-dev, kor-tools and kor-doc, and with
# `cpack --config CPackSourceConfig.cmake` a source archive. script/package does both.
#
# Components: `library` and `development` come from Install.cmake, `tools` is whatever else is installed,
# `documentation` and the Debian files of each package are added here and only go into packages.

set(CPACK_PACKAGE_NAME kor)
set(CPACK_PACKAGE_VENDOR "the Kor authors")
set(CPACK_PACKAGE_CONTACT "the Kor authors <maintainers@kor.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_THREADS 0)
# Whatever the umask of whoever builds the packages.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL library development tools documentation)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE kor)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(intro "Kor locks the frames of a cluster of renderers: one master and any number of
slaves show one scene together, each slave on its own display.")

set(KOR_DEBIAN_FILES ${PROJECT_BINARY_DIR}/packaging)
set(KOR_LIBRARY_PACKAGE libkor${PROJECT_VERSION_MAJOR})
# For packages of programs that are linked with the libraries: a later minor version may add symbols.
set(shlibs)
set(libraryFolders)
foreach(library kor kor-trace)
  string(APPEND shlibs "lib${library} ${PROJECT_VERSION_MAJOR} ${KOR_LIBRARY_PACKAGE} (>= ${PROJECT_VERSION})\n")
  get_target_property(folder ${library} BINARY_DIR)
  list(APPEND libraryFolders ${folder})
endforeach()
file(CONFIGURE OUTPUT ${KOR_DEBIAN_FILES}/shlibs CONTENT "${shlibs}")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${KOR_LIBRARY_PACKAGE})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
# The last two do not exist, which keeps CPack from adding scripts that do what the trigger does.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${KOR_DEBIAN_FILES}/shlibs ${PROJECT_SOURCE_DIR}/packaging/triggers
  ${KOR_DEBIAN_FILES}/none/postinst ${KOR_DEBIAN_FILES}/none/postrm)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "frame lock for clustered real-time rendering - library
${intro}

This package holds the shared libraries.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkor-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS kor-doc)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "frame lock for clustered real-time rendering - development files
${intro}

This package holds the headers, the CMake package and the pkg-config module.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kor-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
# The library is found here, since its package is made at the same time; the dependency on it is the component's.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${libraryFolders})
set(CPACK_COMPONENT_TOOLS_DEPENDS library)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "frame lock for clustered real-time rendering - programs
${intro}

This package holds a master and a slave that lock without a renderer, to try
a network out and to measure how well its machines lock, and kor-trace-merge,
which joins what the machines recorded on one time line.")

set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_NAME kor-doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
set(CPACK_COMPONENT_DOCUMENTATION_DESCRIPTION "frame lock for clustered real-time rendering - documents
${intro}

This package holds the guide, the concepts, the wire format, the reference of
the C++ library, and example programs.")

# Files that only packages hold: gzip writes no time stamp, so that the same tree gives the same package.
string(TIMESTAMP KOR_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(packaging/changelog.in ${KOR_DEBIAN_FILES}/changelog.Debian @ONLY)
set(made)
function(kor_gzip source name)
  add_custom_command(OUTPUT ${KOR_DEBIAN_FILES}/${name}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${KOR_DEBIAN_FILES}
    COMMAND gzip -9nc ${source} > ${KOR_DEBIAN_FILES}/${name}.gz
    DEPENDS ${source} VERBATIM)
  set(made ${made} ${KOR_DEBIAN_FILES}/${name}.gz PARENT_SCOPE)
endfunction()
kor_gzip(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog)
kor_gzip(${KOR_DEBIAN_FILES}/changelog.Debian changelog.Debian)

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  install(FILES packaging/copyright ${KOR_DEBIAN_FILES}/changelog.gz ${KOR_DEBIAN_FILES}/changelog.Debian.gz
    DESTINATION share/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

# The pages are made from what the programs say with --help, so they cannot disagree.
find_program(KOR_HELP2MAN help2man)
function(kor_add_man_page program brief)
  if(NOT TARGET ${program} OR NOT KOR_HELP2MAN)
    return()
  endif()
  set(page ${KOR_DEBIAN_FILES}/${program}.1)
  add_custom_command(OUTPUT ${page}.gz
    COMMAND ${KOR_HELP2MAN} --no-info --version-string ${PROJECT_VERSION} --name ${brief} --output ${page}
            $<TARGET_FILE:${program}>
    COMMAND gzip -9nf ${page}
    DEPENDS ${program} VERBATIM)
  install(FILES ${page}.gz DESTINATION share/man/man1 COMPONENT tools EXCLUDE_FROM_ALL)
  set(made ${made} ${page}.gz PARENT_SCOPE)
endfunction()
kor_add_man_page(kor-master "master of a frame-locked cluster")
kor_add_man_page(kor-slave "slave of a frame-locked cluster")
kor_add_man_page(kor-trace-merge "join the traces of a cluster on one time line")

set(docPlace share/doc/kor-doc)
install(FILES README.md DESTINATION ${docPlace} COMPONENT documentation EXCLUDE_FROM_ALL)
install(DIRECTORY docs examples DESTINATION ${docPlace} COMPONENT documentation EXCLUDE_FROM_ALL
  PATTERN Doxyfile.in EXCLUDE)
if(TARGET docs)
  install(DIRECTORY ${KOR_REFERENCE_DIR} DESTINATION ${docPlace} COMPONENT documentation EXCLUDE_FROM_ALL)
  install(FILES packaging/doc-base DESTINATION share/doc-base COMPONENT documentation EXCLUDE_FROM_ALL
    RENAME kor-doc.kor)
endif()

# cpack brings these up to date before it packs.
add_custom_target(package-files DEPENDS ${made} kor kor-trace)
foreach(target docs kor-trace-merge kor-master kor-slave)
  if(TARGET ${target})
    add_dependencies(package-files ${target})
  endif()
endforeach()
set(CPACK_INSTALL_COMMANDS "${CMAKE_COMMAND} --build ${PROJECT_BINARY_DIR} --target package-files")

set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_PACKAGE_FILE_NAME kor-${PROJECT_VERSION})
# Instead of the whole folder, which may hold anything.
set(CPACK_SOURCE_INSTALLED_DIRECTORIES "")
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/PackageOptions.cmake)
set(CPACK_KOR_SOURCE_DIR ${PROJECT_SOURCE_DIR})
include(CPack)
