#pragma once

/// Marks what the shared libraries export; everything else stays hidden.
#define ORBAMIRA_EXPORT __attribute__((visibility("default")))
