#!/usr/bin/env bash
# What is shipped calls nothing that has sizes, times or inode numbers of 32 bits, where the system has both kinds.
#
# usage: wide_types_test.sh NM OBJECT-FOLDER...
set -euo pipefail

# Of the C library, which has each with 64 bits, too, under another name.
narrow='stat|lstat|fstat|fstatat|open|openat|creat|lseek|pread|pwrite|truncate|ftruncate|fallocate|posix_fallocate|readdir'
narrow+='|statvfs|fstatvfs|sendfile|mkstemp|fopen|fcntl|getrlimit|setrlimit|time|clock_gettime|gettimeofday|localtime_r'
narrow+='|gmtime_r|mktime|timegm|utimensat|futimens|nanosleep|sigtimedwait|select'
# Of other libraries, which take or give a time.
narrow+='|curl_getdate|archive_entry_(set_)?[a-z]+time|ASN1_TIME_(set|adj)|X509_cmp_time|X509_time_adj.*'
narrow+='|X509_VERIFY_PARAM_(set|get)_time'
# The C++ library's: they fail for a file that is dated after 2038. StatusOf() does not.
narrow+='|std::filesystem::(status|symlink_status|last_write_time|file_size|equivalent|create_director|copy).*'
narrow+='|std::chrono::_V2::system_clock::now\(\)'

objects=$(find "${@:2}" -name '*.o')
[ "$(wc -l <<< "$objects")" -gt 50 ] || {
  printf 'only these were found: %s\n' "$objects"
  exit 1
}
# These two are compiled as the system's libarchive and OpenSSL are.
found=$(xargs "$1" --undefined-only --demangle --print-file-name <<< "$objects" |
  grep -vE '/(entry_time|verify_time).cpp.o:' | grep -E ": +U ($narrow)$" || true)
[ -z "$found" ] || {
  printf 'these calls have types of 32 bits:\n%s\n' "$found"
  exit 1
}
