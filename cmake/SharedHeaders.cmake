# Headers from outside the project take most of the compiler's time, so they are precompiled once for
# many sources. Sources still include what they use: lint compiles each of the relay's without this.
# OpenSSL is not among them: a source that uses its deprecated calls says so before including it.

# add_shared_headers(NAME OPTIONS options... USES libraries... HEADERS headers...)
# Compiles the headers once, for targets with the same options that call use_shared_headers(TARGET NAME).
function(add_shared_headers NAME)
  cmake_parse_arguments(SHARED "" "" "OPTIONS;USES;HEADERS" ${ARGN})
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/${NAME}.cpp CONTENT "// No code: only its headers count.\n")
  add_library(${NAME} OBJECT ${CMAKE_BINARY_DIR}/${NAME}.cpp)
  target_compile_options(${NAME} PRIVATE ${SHARED_OPTIONS})
  target_link_libraries(${NAME} PRIVATE ${SHARED_USES})
  target_precompile_headers(${NAME} PRIVATE ${SHARED_HEADERS})
endfunction()

function(use_shared_headers TARGET NAME)
  target_precompile_headers(${TARGET} REUSE_FROM ${NAME})
endfunction()
