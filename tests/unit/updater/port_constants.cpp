#include "platform/paths.h"

#undef ORBAMIRA_PACKS_FOLDER
#define ORBAMIRA_PACKS_FOLDER ORBAMIRA_STATE_FOLDER "/packages/"
#include "platform/constants.cpp"
