# cmake -D HOW=... -D ROOT=... -D BUILD=... -D SCRATCH=... -D CXX=... -D GENERATOR=... -P RunConsumer.cmake
#
# Builds and runs the consumer, whose own folders have the names of ours and come first. HOW:
#   cmake, pkgconfig   against what the build folder BUILD installs. The installed tree is moved first, since it must
#                      not know where it was made. With -D STATIC=ON the library in BUILD is static.
#   fetch              as a project with the tree at ROOT as a part of it. Leaves that project in BUILD, ready to
#                      install the library, which is static there.

function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

file(REMOVE_RECURSE ${SCRATCH})
file(MAKE_DIRECTORY ${SCRATCH})

foreach(folder . include)
  file(GLOB_RECURSE headers RELATIVE ${ROOT}/${folder} ${ROOT}/${folder}/support/*.h ${ROOT}/${folder}/kit/*.h)
  foreach(header ${headers})
    file(WRITE ${SCRATCH}/own/${header} "#error \"a header of the consumer's own\"\n")
  endforeach()
endforeach()
set(warnings -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast)
list(JOIN warnings " " warningText)
set(options -G ${GENERATOR} -S ${CMAKE_CURRENT_LIST_DIR} -DCMAKE_CXX_COMPILER=${CXX}
  -DOWN_HEADERS=${SCRATCH}/own "-DOWN_WARNINGS=${warningText}")

function(install_into prefix)
  run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})
endfunction()

if(HOW STREQUAL fetch)
  set(fetch ${CMAKE_COMMAND} ${options} -B ${BUILD} -DKOR_SOURCE=${ROOT} -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER})
  run(${fetch} -DKOR_INSTALL=OFF)
  run(${CMAKE_COMMAND} --build ${BUILD})
  run(${BUILD}/consumer)
  install_into(${SCRATCH}/installed)
  if(EXISTS ${SCRATCH}/installed)
    message(FATAL_ERROR "the library installs itself with the project that it is a part of")
  endif()
  execute_process(COMMAND ${CMAKE_CTEST_COMMAND} --test-dir ${BUILD} -N OUTPUT_VARIABLE tests COMMAND_ERROR_IS_FATAL ANY)
  if(NOT tests MATCHES "Total Tests: 0")
    message(FATAL_ERROR "tests of the library's in the project that it is a part of: ${tests}")
  endif()
  run(${fetch} -DKOR_INSTALL=ON)
  run(${CMAKE_COMMAND} --build ${BUILD})
else()
  install_into(${SCRATCH}/installed)
  set(prefix ${SCRATCH}/moved)
  file(RENAME ${SCRATCH}/installed ${prefix})
endif()

if(HOW STREQUAL cmake)
  run(${CMAKE_COMMAND} ${options} -B ${SCRATCH}/consumer -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
  run(${CMAKE_COMMAND} --build ${SCRATCH}/consumer)
  run(${SCRATCH}/consumer/consumer)
elseif(HOW STREQUAL pkgconfig)
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
  run(${CXX} -std=c++20 -I${SCRATCH}/own ${warnings} -Werror ${CMAKE_CURRENT_LIST_DIR}/main.cpp ${flags}
    -Wl,-rpath,${libraryFolder} -o ${SCRATCH}/consumer)
  run(${SCRATCH}/consumer)
endif()

file(REMOVE_RECURSE ${SCRATCH})
