#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orbamira::fuzz {

/// An absolute name that members of packages have in some inputs: nothing may be made there.
constexpr const char* kEscape = "/dev/shm/orbamira-escaped";

/// Ends the fuzzer, which keeps the input as a finding, unless `holds`. `rule` is the rule that was broken.
void Require(bool holds, const char* rule);

/// The input as a text of any bytes.
std::string Text(const uint8_t* data, std::size_t size);

/// Takes the first line off the text; without a line's end, all of it.
std::string TakeLine(std::string& text);

/// The number's low bytes, lowest first.
std::string LittleEndian(uint64_t number, int bytes);

}  // namespace orbamira::fuzz
