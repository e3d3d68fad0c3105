# cmake -D BUILD=... -D SCRATCH=... -D CXX=... -D GENERATOR=... -D HOW=cmake|pkgconfig [-D STATIC=ON] -P RunConsumer.cmake
#
# Installs the library from its build folder into a scratch prefix, moves that prefix (an installed tree must not know
# where it was made), and builds and runs the consumer against it.

function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

file(REMOVE_RECURSE ${SCRATCH})
file(MAKE_DIRECTORY ${SCRATCH})

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${SCRATCH}/installed)
set(prefix ${SCRATCH}/moved)
file(RENAME ${SCRATCH}/installed ${prefix})

if(HOW STREQUAL cmake)
  run(${CMAKE_COMMAND} -G ${GENERATOR} -S ${CMAKE_CURRENT_LIST_DIR} -B ${SCRATCH}/consumer
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
  run(${CMAKE_COMMAND} --build ${SCRATCH}/consumer)
  run(${SCRATCH}/consumer/consumer)
else()
  file(GLOB_RECURSE packages ${prefix}/*/kor.pc)
  list(GET packages 0 package)
  cmake_path(GET package PARENT_PATH packageFolder)
  cmake_path(GET packageFolder PARENT_PATH libraryFolder)
  set(ENV{PKG_CONFIG_PATH} ${packageFolder})
  if(STATIC)
    set(static --static)
  endif()
  execute_process(COMMAND pkg-config --cflags --libs ${static} kor-trace OUTPUT_VARIABLE flags COMMAND_ERROR_IS_FATAL ANY)
  separate_arguments(flags UNIX_COMMAND ${flags})
  run(${CXX} -std=c++20 ${CMAKE_CURRENT_LIST_DIR}/main.cpp ${flags} -Wl,-rpath,${libraryFolder}
    -o ${SCRATCH}/consumer)
  run(${SCRATCH}/consumer)
endif()

file(REMOVE_RECURSE ${SCRATCH})
