vornfc_compare(startup)
foreach(program vornfc bare)
  add_executable(compare_startup_${program} startup/${program}.cpp)
  set_target_properties(compare_startup_${program} PROPERTIES OUTPUT_NAME startup_${program})
  vornfc_warnings(compare_startup_${program})
  add_dependencies(compare_startup compare_startup_${program})
endforeach()
target_link_libraries(compare_startup_vornfc PRIVATE vornfc::vornfc_mt vornfc::vornsupport)
# The loader looks for every library of a program in the directory of ours first, which it does not do
# for installed ones. It does so for the limit as well.
set_target_properties(compare_startup_bare PROPERTIES BUILD_RPATH $<TARGET_FILE_DIR:vornfc_mt>)
