#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

// Makes texts from outside fit to be shown and logged. Not installed; all in the header, for every library and program.
namespace orbamira {

/// The length in bytes of the UTF-8 character at the beginning of the text; 0 when there is no valid one.
inline std::size_t CharacterLength(std::string_view text) {
  struct Form {
    unsigned first;      // the least first byte of the form, and
    unsigned last;       // the greatest
    unsigned second_lo;  // the least second byte, where a shorter form or a surrogate has to be kept out
    unsigned second_hi;
    std::size_t length;
  };
  constexpr std::array kForms = {
      Form{0x00, 0x7f, 0, 0, 1},       Form{0xc2, 0xdf, 0x80, 0xbf, 2}, Form{0xe0, 0xe0, 0xa0, 0xbf, 3},
      Form{0xe1, 0xec, 0x80, 0xbf, 3}, Form{0xed, 0xed, 0x80, 0x9f, 3}, Form{0xee, 0xef, 0x80, 0xbf, 3},
      Form{0xf0, 0xf0, 0x90, 0xbf, 4}, Form{0xf1, 0xf3, 0x80, 0xbf, 4}, Form{0xf4, 0xf4, 0x80, 0x8f, 4}};
  const auto byte = [text](std::size_t at) { return static_cast<unsigned>(static_cast<unsigned char>(text[at])); };
  for (const Form& form : kForms) {
    if (text.empty() || byte(0) < form.first || byte(0) > form.last) {
      continue;
    }
    bool whole = text.size() >= form.length;
    for (std::size_t at = 1; whole && at < form.length; ++at) {
      whole = at == 1 ? byte(1) >= form.second_lo && byte(1) <= form.second_hi : (byte(at) & 0xc0U) == 0x80U;
    }
    return whole ? form.length : 0;
  }
  return 0;
}

/// Whether the UTF-8 character controls the display instead of being shown: a control character of ASCII or Unicode,
/// one that changes the direction of writing, or one that ends a line or a paragraph.
inline bool IsControl(std::string_view character) {
  if (character.size() == 1) {
    const auto byte = static_cast<unsigned char>(character.front());
    return byte < 0x20 || byte == 0x7f;
  }
  if (character.size() == 2) {
    return (character >= "\xc2\x80" && character <= "\xc2\x9f") || character == "\xd8\x9c";
  }
  return (character >= "\xe2\x80\x8e" && character <= "\xe2\x80\x8f") ||
         (character >= "\xe2\x80\xa8" && character <= "\xe2\x80\xae") ||
         (character >= "\xe2\x81\xa6" && character <= "\xe2\x81\xa9");
}

/// The text on one line: each byte of a control character, and each byte that is not UTF-8, becomes \ooo (octal).
inline std::string Printable(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = CharacterLength(text);
    const std::string_view character = text.substr(0, length == 0 ? 1 : length);
    text.remove_prefix(character.size());
    if (length != 0 && !IsControl(character)) {
      line += character;
      continue;
    }
    for (const char c : character) {
      const auto byte = static_cast<unsigned char>(c);
      line += '\\';
      for (const unsigned shift : {6U, 3U, 0U}) {
        line += static_cast<char>('0' + ((byte >> shift) & 7U));
      }
    }
  }
  return line;
}

}  // namespace orbamira
