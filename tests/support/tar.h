#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <numeric>
#include <string>

namespace orbamira::test {

/// Writes tar archives block by block, so that they can hold what no archiver would write.
class Tar {
 public:
  Tar& Add(char type, const std::string& name, const std::string& data = "", const std::string& link = "",
           unsigned mode = 0644) {
    Header(type, name, data.size(), link, mode);
    return Data(data);
  }
  Tar& File(const std::string& name, const std::string& data = "data", unsigned mode = 0644) {
    return Add('0', name, data, "", mode);
  }
  Tar& Folder(const std::string& name, unsigned mode = 0755) { return Add('5', name, "", "", mode); }
  Tar& Symlink(const std::string& name, const std::string& target) { return Add('2', name, "", target); }
  Tar& HardLink(const std::string& name, const std::string& target) { return Add('1', name, "", target); }
  /// A name of any length, in front of the member that has it.
  Tar& LongName(const std::string& name) { return Add('L', "././@LongLink", name + '\0'); }
  Tar& Extended(const std::map<std::string, std::string>& records) {
    std::string text;
    for (const auto& [key, value] : records) {
      const std::string record = " " + key + "=" + value + "\n";
      size_t length = record.size() + 1;
      while (std::to_string(length).size() + record.size() != length) {
        ++length;
      }
      text += std::to_string(length) + record;
    }
    return Add('x', "PaxHeader", text);
  }

  Tar& Header(char type, const std::string& name, uint64_t size, const std::string& link = "", unsigned mode = 0644) {
    std::string header(512, '\0');
    header.replace(0, std::min<size_t>(name.size(), 100), name, 0, 100);
    header.replace(100, 7, Octal(mode, 7));
    header.replace(108, 7, Octal(12345, 7));
    header.replace(116, 7, Octal(12345, 7));
    if (size < (1ULL << 33)) {
      header.replace(124, 11, Octal(size, 11));
    } else {
      header[124] = '\x80';
      for (int i = 0; i < 8; ++i) {
        header[static_cast<size_t>(135 - i)] = static_cast<char>(size >> (8 * i));
      }
    }
    header.replace(136, 11, Octal(1'000'000'000, 11));
    header[156] = type;
    header.replace(157, std::min<size_t>(link.size(), 100), link, 0, 100);
    header.replace(257, 8, std::string("ustar\0", 6) + "00");
    header.replace(148, 8, "        ");
    const unsigned sum = std::accumulate(header.begin(), header.end(), 0U,
                                         [](unsigned total, char c) { return total + static_cast<unsigned char>(c); });
    header.replace(148, 8, Octal(sum, 6) + std::string("\0 ", 2));
    bytes_ += header;
    return *this;
  }
  Tar& Data(const std::string& data) {
    bytes_ += data;
    bytes_.resize((bytes_.size() + 511) / 512 * 512);
    return *this;
  }

  [[nodiscard]] const std::string& WithoutEnd() const { return bytes_; }
  [[nodiscard]] std::string Bytes() const { return bytes_ + std::string(1024, '\0'); }

 private:
  static std::string Octal(uint64_t number, size_t digits) {
    std::string text(digits, '0');
    for (size_t i = digits; i-- > 0 && number != 0; number /= 8) {
      text[i] = static_cast<char>('0' + number % 8);
    }
    return text;
  }

  std::string bytes_;
};

}  // namespace orbamira::test
