# Flags of the project's own code. Generated code and other people's headers are compiled without the warnings.

add_library(tarnbooster_warnings INTERFACE)
target_compile_options(tarnbooster_warnings INTERFACE -Wall -Wextra $<$<BOOL:${TARNBOOSTER_WERROR}>:-Werror>)

if(TARNBOOSTER_SANITIZE)
  add_compile_options(-fsanitize=${TARNBOOSTER_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TARNBOOSTER_SANITIZE})
endif()
