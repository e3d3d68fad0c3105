# Run by cpack for the source archive: copies the tracked files, as they are in the tree, and nothing else.
# Without git, in a tree that came from such an archive, it copies all but what .gitignore names.

set(source ${CPACK_KOR_SOURCE_DIR})
if(EXISTS ${source}/.git)
  execute_process(COMMAND git -C ${source} -c core.quotePath=off ls-files --cached OUTPUT_VARIABLE files
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  string(REPLACE "\n" ";" files "${files}")
else()
  file(GLOB_RECURSE files RELATIVE ${source} ${source}/* ${source}/.[!.]*)
  list(FILTER files EXCLUDE REGEX "^(build[^/]*|out|\\.cache)/|__pycache__|\\.pyc$|^compile_commands\\.json$")
endif()
foreach(name ${files})
  if(EXISTS ${source}/${name})
    cmake_path(GET name PARENT_PATH folder)
    file(COPY ${source}/${name} DESTINATION ${CMAKE_INSTALL_PREFIX}/${folder})
  endif()
endforeach()
