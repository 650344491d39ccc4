#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/orba_core_wrapper.h"
#include "tests/fuzz/flow/strikes.h"

namespace orbamira::fuzz::flow {

/// What plugins and the programs that judge a pack say.
struct Answers {
  int notified = 0;       ///< exit status of those that are told of a step
  int health = 0;         ///< exit status of the judgement
  bool is_plain = false;  ///< the answer is the file as it is, and not what a plugin printed
  std::string ids = {};   ///< the answer to the question for ids
};

/// The programs that the library starts, but in this process, so that what they do is seen and costs no start. Real
/// ones in all but their start: orba-archive with its main function, orba-copy and orba-remove without. Of
/// orba-plugins, what reads the answers; the plugins' own processes have tests of their own.
class Programs : public wrapper::IOrbaCoreWrapper {
 public:
  Programs(Answers answers, Strikes& strikes) : answers_(std::move(answers)), strikes_(strikes) {}

  int RunCommand(const std::vector<std::string>& args) override;
  std::string GetKeyValue(const std::string& file, const std::string& key) override;

 private:
  int Run(const std::vector<std::string>& args) const;
  int ListIds(const std::string& file) const;

  Answers answers_;
  Strikes& strikes_;
};

}  // namespace orbamira::fuzz::flow
