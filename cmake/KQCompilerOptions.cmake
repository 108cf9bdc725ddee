# Warnings and sanitizers for every target of ours, through one interface target.
add_library(kq_build_options INTERFACE)
target_compile_options(kq_build_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow
  -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual)
if(KQ_WERROR)
  target_compile_options(kq_build_options INTERFACE -Werror)
endif()

if(KQ_SANITIZE)
  set(_kq_sanitize_flags -fsanitize=${KQ_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_compile_options(kq_build_options INTERFACE ${_kq_sanitize_flags})
  target_link_options(kq_build_options INTERFACE ${_kq_sanitize_flags})
endif()
