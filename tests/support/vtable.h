#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace orbamira::test {

/// The slot of a virtual operation in its class's virtual table, counted from 0. A virtual destructor takes two slots
/// (complete, deleting) where it is declared. Programs that were linked with the library call by this number, so a
/// test that compares it fails when a header's order of operations changes.
///
/// Read from the pointer to member, which in the Itanium C++ ABI holds the slot's offset in bytes: plus 1 in its first
/// word, or as it is on ARM, where the second word holds the mark.
template <typename Method>
std::size_t SlotOf(Method method) {
  static_assert(std::is_member_function_pointer_v<Method>);
  struct {
    std::ptrdiff_t pointer;
    std::ptrdiff_t adjustment;
  } parts{};
  static_assert(sizeof(parts) == sizeof(method));
  std::memcpy(&parts, &method, sizeof(parts));
#if defined(__aarch64__) || defined(__arm__)
  const bool is_virtual = (parts.adjustment & 1) != 0;
  const std::ptrdiff_t offset = parts.pointer;
#else
  const bool is_virtual = (parts.pointer & 1) != 0;
  const std::ptrdiff_t offset = parts.pointer - 1;
#endif
  return is_virtual ? static_cast<std::size_t>(offset) / sizeof(void*) : static_cast<std::size_t>(-1);
}

}  // namespace orbamira::test
