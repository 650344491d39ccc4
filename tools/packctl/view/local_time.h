#pragma once

#include <ctime>
#include <string>

/// Times for people.
namespace orbamira::packctl {

/// The time of the clock on the wall: "2026-01-31 13:05:00 CET".
std::string LocalTime(std::time_t time);

}  // namespace orbamira::packctl
