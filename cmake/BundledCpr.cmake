# A cpr that was built beside the project is shipped with it; one of the distribution's stays the distribution's.
# Sets bundled_cpr, and cpr_library and cpr_folder, which say where it is.
get_target_property(cpr_library cpr::cpr IMPORTED_LOCATION_RELEASE)
set(bundled_cpr FALSE)
if(cpr_library MATCHES "^${PROJECT_SOURCE_DIR}/")
  set(bundled_cpr TRUE)
  cmake_path(GET cpr_library PARENT_PATH cpr_folder)
  # By this link what is built finds it without knowing where: programs are the same in whatever folder they are built.
  file(CREATE_LINK ${cpr_folder} ${PROJECT_BINARY_DIR}/cpr SYMBOLIC)
  cmake_path(GET cpr_library FILENAME cpr_file)
  set_target_properties(cpr::cpr PROPERTIES IMPORTED_LOCATION_RELEASE ${PROJECT_BINARY_DIR}/cpr/${cpr_file})
endif()
