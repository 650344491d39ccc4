# The appliance that tests start from, C++ and Python ones: links to what the build makes, in the places of an
# installation, and the settings of an appliance. A test copies it and has the copy for itself.
set(appliance ${PROJECT_BINARY_DIR}/tests/appliance)
set(appliance_programs ${appliance}${ORBAMIRA_HELPERS_FOLDER})
set(appliance_data ${appliance}${ORBAMIRA_DATA_FOLDER})

foreach(folder IN ITEMS
    ${appliance}/usr/bin ${appliance_programs} ${appliance_data} ${appliance}${ORBAMIRA_PLUGINS_FOLDER}
    ${appliance}${ORBAMIRA_SETTINGS_FOLDER} ${appliance}${ORBAMIRA_PACKS_FOLDER} ${appliance}${ORBAMIRA_STATE_FOLDER}
    ${appliance}${ORBAMIRA_RUN_FOLDER}/lock)
  file(MAKE_DIRECTORY ${folder})
endforeach()

foreach(program IN ITEMS orba-account orba-archive orba-copy orba-load orba-plugins orba-recover orba-remove)
  file(CREATE_LINK ${PROJECT_BINARY_DIR}/tools/${program}/${program} ${appliance_programs}/${program} SYMBOLIC)
endforeach()
file(CREATE_LINK orba-archive ${appliance_programs}/orba-tar SYMBOLIC)
file(CREATE_LINK orba-plugins ${appliance_programs}/notify-plugins SYMBOLIC)
file(CREATE_LINK orba-plugins ${appliance_programs}/list-app-ids SYMBOLIC)
file(CREATE_LINK orba-plugins ${appliance_programs}/check-health SYMBOLIC)
file(CREATE_LINK ${PROJECT_BINARY_DIR}/tools/packctl/packctl ${appliance}/usr/bin/packctl SYMBOLIC)
file(CREATE_LINK ${PROJECT_BINARY_DIR}/tools/mkpack/mkpack ${appliance}/usr/bin/mkpack SYMBOLIC)

file(GLOB page_files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tools/packctl/web/page/*)
foreach(file IN LISTS page_files)
  cmake_path(GET file FILENAME name)
  configure_file(${file} ${appliance_data}/web/${name} COPYONLY)
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/packaging/INFO.in ${appliance_data}/INFO @ONLY)
file(CONFIGURE OUTPUT ${appliance}${ORBAMIRA_SYSTEM_FILE} CONTENT "${ORBAMIRA_UNIQUE_KEY}=\"test-appliance\"\n")
file(CONFIGURE OUTPUT ${appliance}${ORBAMIRA_VERSION_FILE}
  CONTENT "${ORBAMIRA_MAJOR_VERSION_KEY}=3\n${ORBAMIRA_MINOR_VERSION_KEY}=1\n${ORBAMIRA_BUILD_NUMBER_KEY}=1200\n")
