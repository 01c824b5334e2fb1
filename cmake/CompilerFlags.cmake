# Warnings and sanitizers for every target of the project.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wmissing-declarations -fno-omit-frame-pointer)
if(RELAY_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()

if(RELAY_SANITIZERS)
  add_compile_options(-fsanitize=${RELAY_SANITIZERS} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${RELAY_SANITIZERS})
endif()
