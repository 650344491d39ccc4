// Writes values into a status store, for store_test.py to strike at: store_writer FILE MARKS LENGTH...
//
// For each LENGTH the store is cleared and gets "key" with a value of so many bytes: "a" for the first, "b" for the
// second and so on. When a value has been set, the folder MARKS gets a folder of its letter. Ends with 1 when the store
// throws, with the store as the failed write left it.

#include <sys/stat.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <system_error>

#include "platform/key_value_store.h"

namespace {

void WriteAll(const std::string& file, const std::string& marks, int count, char** lengths) {
  const auto store = orbamira::store::FileKeyValueStore::Create(file);
  if (store == nullptr) {
    throw std::system_error(errno, std::generic_category(), file);
  }
  for (int i = 0; i < count; ++i) {
    const char letter = static_cast<char>('a' + i);
    store->Clear();
    store->Set("key", std::string(std::stoul(lengths[i]), letter));
    mkdir((marks + "/" + letter).c_str(), 0755);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    return EXIT_FAILURE;
  }
  try {
    WriteAll(argv[1], argv[2], argc - 3, argv + 3);
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return EXIT_FAILURE;
  }
}
