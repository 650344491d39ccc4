// An OpenID Connect provider for tests that are not programs of C++: prints its issuer, and runs until its standard
// input is closed. With "--login" it asks the user on a page of its own.

#include <iostream>
#include <string>

#include "tests/support/oidc_provider.h"

int main(int argc, char** argv) {
  orbamira::test::OidcProvider provider;
  provider.shows_login = argc > 1 && std::string(argv[1]) == "--login";
  std::cout << provider.issuer() << std::endl;
  std::string line;
  while (std::getline(std::cin, line)) {
  }
}
