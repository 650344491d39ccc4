# CPack runs this when the packages are made, and gives their members modes by the umask. Nothing else depends on it.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  set(folder ${package}.members)
  file(MAKE_DIRECTORY ${folder})
  execute_process(COMMAND ar x ${package}
    WORKING_DIRECTORY ${folder} COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND ar rD ${package} debian-binary control.tar.gz data.tar.gz
    WORKING_DIRECTORY ${folder} COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${folder})
endforeach()
