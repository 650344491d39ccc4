// The compression of a payload: what is taken as whole decompresses to the same bytes in another library too. That one
// does not look at the checksum, so it can tell which one the input should have had.

#include <archive.h>
#include <archive_entry.h>
#include <isa-l/crc.h>
#include <sys/mman.h>

#include <array>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

#include "platform/posix/files.h"
#include "tests/fuzz/fuzzing.h"
#include "tools/orba-archive/byte_source.h"

namespace {

using orbamira::fuzz::Require;

// Empty when the bytes are refused.
std::optional<std::string> Decompress(const std::string& gzip) {
  const orbamira::UniqueFd file(memfd_create("gzip", MFD_CLOEXEC));
  orbamira::WriteFully(file.get(), gzip.data(), gzip.size(), "gzip");
  std::string content;
  try {
    const auto source = orbamira::tools::OpenByteSource(file.get(), orbamira::tools::Layer::kPayload);
    for (std::span<const uint8_t> bytes = source->Next(); !bytes.empty(); bytes = source->Next()) {
      content.append(bytes.begin(), bytes.end());
    }
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
  return content;
}

std::optional<std::string> DecompressElsewhere(const std::string& gzip) {
  const std::unique_ptr<archive, int (*)(archive*)> reader(archive_read_new(), archive_read_free);
  archive_read_support_filter_gzip(reader.get());
  archive_read_support_format_raw(reader.get());
  archive_read_support_format_empty(reader.get());
  archive_entry* entry = nullptr;
  if (archive_read_open_memory(reader.get(), gzip.data(), gzip.size()) != ARCHIVE_OK) {
    return std::nullopt;
  }
  if (const int result = archive_read_next_header(reader.get(), &entry); result != ARCHIVE_OK) {
    return result == ARCHIVE_EOF ? std::optional(std::string()) : std::nullopt;
  }
  std::string content;
  std::array<char, 4096> buffer;
  la_ssize_t count = 0;
  while ((count = archive_read_data(reader.get(), buffer.data(), buffer.size())) > 0) {
    content.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return count == 0 ? std::optional(content) : std::nullopt;
}

// The input with the right checksum and length of its content: random ones are always wrong.
std::string WithTrailer(std::string gzip, const std::string& content) {
  const uint32_t sum = crc32_gzip_refl(0, reinterpret_cast<const unsigned char*>(content.data()), content.size());
  gzip.resize(gzip.size() - 8);
  return gzip + orbamira::fuzz::LittleEndian(sum, 4) + orbamira::fuzz::LittleEndian(content.size(), 4);
}

void Compare(const std::string& gzip, const std::optional<std::string>& elsewhere) {
  if (const std::optional<std::string> content = Decompress(gzip)) {
    Require(elsewhere == content, "both libraries decompress to the same bytes");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string gzip = orbamira::fuzz::Text(data, size);
  const std::optional<std::string> elsewhere = DecompressElsewhere(gzip);
  Compare(gzip, elsewhere);
  if (elsewhere && size > 8) {
    const std::string corrected = WithTrailer(gzip, *elsewhere);
    Compare(corrected, DecompressElsewhere(corrected));
  }
  return 0;
}
