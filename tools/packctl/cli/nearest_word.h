#pragma once

#include <span>
#include <string>
#include <string_view>

/// Finds what a misspelt word was meant as.
namespace orbamira::packctl {

/// The candidate that takes the fewest added, removed or replaced bytes to become `word`; of several, the first. Empty
/// if even that one differs in more than two bytes and in more than a third of `word`.
std::string NearestWord(std::string_view word, std::span<const std::string> candidates);

/// " Did you mean \"WORD\"?" with the nearest of the candidates; empty if none is near.
std::string DidYouMean(std::string_view word, std::span<const std::string> candidates);

}  // namespace orbamira::packctl
