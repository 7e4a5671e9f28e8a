# Instrumentation. It concerns the whole program, so it applies to every target of the build.
if(VORNFC_SANITIZE)
  add_compile_options(-fsanitize=${VORNFC_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${VORNFC_SANITIZE})
endif()
if(VORNFC_COVERAGE)
  # Counts of several threads are not to get lost.
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
