// Prints what the platform knows of the appliance's owner. Built once, and run with one platform library and another.

#include <iostream>

#include "updater/kos_helper.h"

int main() {
  const auto facts = orbamira::updater::KOSHelper::Create();
  std::cout << facts->GetUserId() << " in " << facts->GetTimezone() << '\n';
}
