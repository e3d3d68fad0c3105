# Target `docs`: the reference of the public headers with the documents, as HTML in reference/ of the build folder.
# Fails at anything undocumented.

find_program(KOR_DOXYGEN doxygen)
if(KOR_DOXYGEN)
  set(KOR_REFERENCE_DIR ${PROJECT_BINARY_DIR}/reference)
  configure_file(docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${KOR_REFERENCE_DIR}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${KOR_REFERENCE_DIR}/docs
    # Where the README looks for its drawing.
    COMMAND ${CMAKE_COMMAND} -E copy ${PROJECT_SOURCE_DIR}/docs/frame-lock.svg ${KOR_REFERENCE_DIR}/docs/frame-lock.svg
    COMMAND ${KOR_DOXYGEN} ${PROJECT_BINARY_DIR}/Doxyfile
    COMMENT "Writing ${KOR_REFERENCE_DIR}/index.html" VERBATIM)
endif()
