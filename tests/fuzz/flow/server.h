#pragma once

#include <functional>
#include <string>

#include "tests/fuzz/flow/input.h"
#include "tests/fuzz/flow/strikes.h"

namespace orbamira::fuzz::flow {

/// Stands for the network: nothing is sent. What the updater asks is answered from here, down to the requests for the
/// rest of a body; the code that resumes is the real one.
///
/// Bytes of the script are taken for each request. For the reply one: healthy, or how it fails. For a body one, and
/// another if it does not arrive whole: where it ends, and whether the server states length and tag.
class Server {
 public:
  using BodyOf = std::function<std::string(const std::string& link)>;

  /// There is one at a time.
  Server(std::string reply, BodyOf body_of, const std::string& script, Strikes& strikes);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  struct Answer {
    long status = 200;
    bool failed = false;  ///< the connection broke
    std::string body = {};
    std::string tag = {};
    std::string range = {};  ///< Content-Range
    long long length = -1;   ///< Content-Length; negative when it is not stated
  };

  [[nodiscard]] Answer Reply();
  [[nodiscard]] const Answer& Body(const std::string& link, const std::string& range);
  [[nodiscard]] const Answer& last() const { return last_; }
  [[nodiscard]] Strikes& strikes() const { return strikes_; }

  [[nodiscard]] static Server& Current();

 private:
  std::string reply_;
  BodyOf body_of_;
  ByteReader script_;
  Strikes& strikes_;
  Answer last_;
};

}  // namespace orbamira::fuzz::flow
