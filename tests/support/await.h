#pragma once

#include <functional>

namespace orbamira::test {

/// Waits until the condition holds. Throws std::runtime_error after five minutes, which only what hangs takes.
void Await(const std::function<bool()>& condition);

}  // namespace orbamira::test
