# ORBAMIRA_BUILD_TIME, in seconds since 1970: before it, no clock is right. It is SOURCE_DATE_EPOCH if the environment
# sets it, else the date of the newest entry of the Debian changelog, so that a build is the same whenever it is made.
set(changelog ${PROJECT_SOURCE_DIR}/packaging/debian/changelog.in)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${changelog})
file(STRINGS ${changelog} signatures REGEX "^ -- ")
list(GET signatures 0 ORBAMIRA_CHANGELOG_TIME)
string(REGEX REPLACE ".*>  |.*@  " "" ORBAMIRA_CHANGELOG_TIME ${ORBAMIRA_CHANGELOG_TIME})
execute_process(COMMAND date --date ${ORBAMIRA_CHANGELOG_TIME} +%s
  OUTPUT_VARIABLE ORBAMIRA_CHANGELOG_TIME
  OUTPUT_STRIP_TRAILING_WHITESPACE
  COMMAND_ERROR_IS_FATAL ANY)
set(ORBAMIRA_BUILD_TIME ${ORBAMIRA_CHANGELOG_TIME})
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(ORBAMIRA_BUILD_TIME $ENV{SOURCE_DATE_EPOCH})
endif()
