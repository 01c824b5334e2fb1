# Warnings and sanitizers for every target in the project.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wmissing-declarations -fno-omit-frame-pointer)
if(RELAY_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()

if(RELAY_SANITIZERS)
  # The vptr check tests through a pipe whether memory can be read, and so takes a good object for a
  # bad one when the process has run out of descriptors: a state that the relay has to survive.
  add_compile_options(-fsanitize=${RELAY_SANITIZERS} -fno-sanitize=vptr -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${RELAY_SANITIZERS})
endif()
