#pragma once

#include <syslog.h>

// Every message names its source: the file's bare name and the line stand in front of the text.
#define ORBAMIRA_LOG(priority, format, ...) \
  syslog(LOG_LOCAL1 | (priority), "%s:%d " format, __FILE_NAME__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define ORBAMIRA_LOG_ERROR(format, ...) ORBAMIRA_LOG(LOG_ERR, format __VA_OPT__(, ) __VA_ARGS__)
#define ORBAMIRA_LOG_INFO(format, ...) ORBAMIRA_LOG(LOG_INFO, format __VA_OPT__(, ) __VA_ARGS__)
