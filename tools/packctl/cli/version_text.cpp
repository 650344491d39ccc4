#include "tools/packctl/cli/version_text.h"

#include <CLI/Version.hpp>
#include <cpr/cprver.h>
#include <json/version.h>

#include "platform/network/request.h"

namespace orbamira::packctl {

std::string VersionText() {
  // The system renews the libraries that speak to the network without us: what counts is what is there now.
  return "packctl " PACKCTL_VERSION "\nBuild:     " PACKCTL_BUILD "\nLibraries: " + NetworkLibraries() +
         ", cpr " CPR_VERSION ", jsoncpp " JSONCPP_VERSION_STRING ", CLI11 " CLI11_VERSION;
}

}  // namespace orbamira::packctl
