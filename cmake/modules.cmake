# module(NAME [USED...]): a static library of the folder src/NAME.
#
# The include path contains a link to the folder, so that `#include "buffer/cbuff.h"`
# resolves only in modules that declare `buffer`. Linking is transitive, header
# visibility is not.
function(module name)
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/${name}/*.cpp
                                      ${PROJECT_SOURCE_DIR}/src/${name}/*.h)
  add_library(${name} STATIC ${sources})
  set_target_properties(${name} PROPERTIES LINKER_LANGUAGE CXX)
  set(stage ${PROJECT_BINARY_DIR}/include/${name})
  file(MAKE_DIRECTORY ${stage})
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src/${name} ${stage}/${name} SYMBOLIC)
  target_include_directories(${name} PUBLIC ${stage})
  # Messages, debuggers and coverage show the real path, not that of the link.
  target_compile_options(${name} PUBLIC -ffile-prefix-map=${stage}/=${PROJECT_SOURCE_DIR}/src/)
  uses(${name} ${ARGN})
endfunction()

# uses(TARGET USED...): what TARGET may include and link.
function(uses target)
  target_link_libraries(${target} PRIVATE ${ARGN} Threads::Threads weir_build)
endfunction()

# program(NAME SOURCE USED...): an executable of a source in src/ itself.
# It is also compiled through a link: from src/ itself it could include every module.
function(program name source)
  set(stage ${PROJECT_BINARY_DIR}/include/${name}-program)
  file(MAKE_DIRECTORY ${stage})
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src/${source} ${stage}/${source} SYMBOLIC)
  add_executable(${name} ${stage}/${source})
  target_compile_options(${name} PRIVATE -ffile-prefix-map=${stage}/=${PROJECT_SOURCE_DIR}/src/)
  uses(${name} ${ARGN})
endfunction()
