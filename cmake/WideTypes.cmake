# Where times have 32 bits, sizes of files and inode numbers have, too. The C library also has them with 64: without
# those a file over 2 GiB, a date after 2038 and a large inode number are errors. Libraries of the system keep their 32
# bits, so no time of ours is handed to them but where ORBAMIRA_NARROW_OPTIONS are.
#
# ORBAMIRA_WIDE_DEFINITIONS are for whatever is compiled here, and for hosts: a time is part of an interface.
# ORBAMIRA_NARROW_OPTIONS take them back for a source.
include(CheckTypeSize)
set(CMAKE_EXTRA_INCLUDE_FILES ctime)
check_type_size(std::time_t ORBAMIRA_TIME_SIZE LANGUAGE CXX)
unset(CMAKE_EXTRA_INCLUDE_FILES)
set(ORBAMIRA_WIDE_DEFINITIONS "")
set(ORBAMIRA_NARROW_OPTIONS "")
if(ORBAMIRA_TIME_SIZE LESS 8)
  set(ORBAMIRA_WIDE_DEFINITIONS _FILE_OFFSET_BITS=64 _TIME_BITS=64)
  set(ORBAMIRA_NARROW_OPTIONS -U_FILE_OFFSET_BITS -U_TIME_BITS)
endif()
