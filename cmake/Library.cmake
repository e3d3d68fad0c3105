# How everything in the tree is compiled.
set(CMAKE_CXX_EXTENSIONS OFF)
add_library(kor_flags INTERFACE)
target_compile_features(kor_flags INTERFACE cxx_std_20)
if(PROJECT_IS_TOP_LEVEL)
  target_compile_options(kor_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
endif()
if(KOR_SANITIZE)
  target_compile_options(kor_flags INTERFACE -fsanitize=${KOR_SANITIZE} -fno-omit-frame-pointer
                                             -fno-sanitize-recover=all)
  target_link_options(kor_flags INTERFACE -fsanitize=${KOR_SANITIZE})
endif()

# kor_add_library(NAME SOURCE...): the library NAME (kor, or kor-... for a companion), its alias in kor::, and
# NAME_testing with underscores: the same objects with their internals in reach, for tests, simulator, fuzzers and
# benchmarks.
function(kor_add_library name)
  string(REPLACE - _ id ${name})
  string(TOUPPER ${id} upper)
  string(REGEX REPLACE "^kor-" "" export ${name})

  add_library(${id}_objects OBJECT ${ARGN})
  target_compile_definitions(${id}_objects PRIVATE ${upper}_BUILDING)
  # Before those of a project that includes the tree, whose folders may have the names of ours.
  target_include_directories(${id}_objects BEFORE PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR})
  target_link_libraries(${id}_objects PRIVATE kor_flags Threads::Threads)
  set_target_properties(${id}_objects PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
                        POSITION_INDEPENDENT_CODE ON)

  add_library(${name} $<TARGET_OBJECTS:${id}_objects>)
  add_library(kor::${export} ALIAS ${name})
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_include_directories(${name} INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:kor_flags> Threads::Threads)
  set_target_properties(${name} PROPERTIES EXPORT_NAME ${export} VERSION ${PROJECT_VERSION}
                        SOVERSION ${PROJECT_VERSION_MAJOR})
  if(NOT BUILD_SHARED_LIBS)
    target_compile_definitions(${id}_objects PRIVATE KOR_STATIC)
    target_compile_definitions(${name} INTERFACE KOR_STATIC)
  endif()

  add_library(${id}_testing STATIC EXCLUDE_FROM_ALL $<TARGET_OBJECTS:${id}_objects>)
  target_include_directories(${id}_testing PUBLIC ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR})
  target_link_libraries(${id}_testing PUBLIC kor_flags Threads::Threads)
endfunction()
