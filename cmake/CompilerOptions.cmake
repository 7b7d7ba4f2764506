# Warnings, hardening and sanitizers, as one interface target that every target of the project links.

add_library(kel_options INTERFACE)
target_compile_options(kel_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wcast-qual -Wformat=2 -Wundef -Wvla -Wconversion
  $<$<COMPILE_LANGUAGE:CXX>:-Wno-sign-conversion -Wnon-virtual-dtor -Woverloaded-virtual>
  # Texts are cut at their buffers' size on purpose; GCC cannot tell that from a mistake.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-format-truncation>
  -fno-omit-frame-pointer)
if(KEL_WARNINGS_AS_ERRORS)
  target_compile_options(kel_options INTERFACE -Werror)
endif()
if(KEL_SANITIZE)
  target_compile_options(kel_options INTERFACE -fsanitize=${KEL_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(kel_options INTERFACE -fsanitize=${KEL_SANITIZE})
else()
  target_compile_options(kel_options INTERFACE -fstack-protector-strong)
endif()
