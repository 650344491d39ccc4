#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/mocks.h"
#include "updater/pack_manager.h"

// This program defines the factories that the pack manager calls, so that each can fail.
namespace orbamira::updater {
namespace {

struct Factories {
  std::string failing;
  std::vector<std::string> calls;
  std::set<std::string> alive;
};

Factories& TheFactories() {
  static Factories factories;
  return factories;
}

// A collaborator that tells when it is gone.
template <typename Mock>
class Tracked : public testing::StrictMock<Mock> {
 public:
  explicit Tracked(std::string name) : name_(std::move(name)) { TheFactories().alive.insert(name_); }
  ~Tracked() override { TheFactories().alive.erase(name_); }
  Tracked(const Tracked&) = delete;
  Tracked& operator=(const Tracked&) = delete;

 private:
  std::string name_;
};

template <typename Mock>
std::unique_ptr<Tracked<Mock>> Make(const std::string& name) {
  TheFactories().calls.push_back(name);
  return TheFactories().failing == name ? nullptr : std::make_unique<Tracked<Mock>>(name);
}

}  // namespace

std::unique_ptr<IKOSHelper> KOSHelper::Create() { return Make<test::MockKosHelper>("KOSHelper"); }
std::unique_ptr<IPackStatusHelper> PackStatusHelper::Create() {
  return Make<test::MockStatusHelper>("PackStatusHelper");
}
std::unique_ptr<IPackHandler> PackHandler::Create() { return Make<test::MockPackHandler>("PackHandler"); }
std::unique_ptr<IPluginNotifier> PluginNotifier::Create() { return Make<test::MockNotifier>("PluginNotifier"); }

namespace {

using test::ErrorLine;
using test::LogCapture;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

const std::vector<std::string>& InOrder() {
  static const std::vector<std::string> names = {"KOSHelper", "PackStatusHelper", "PackHandler", "PluginNotifier"};
  return names;
}

class PackManagerFactoriesTest : public testing::TestWithParam<std::size_t> {
 protected:
  PackManagerFactoriesTest() {
    TheFactories() = Factories();
    LogCapture::Clear();
  }
};

TEST_F(PackManagerFactoriesTest, CreateMakesItsCollaboratorsInOrderAndKeepsThem) {
  auto manager = PackManager::Create();
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(TheFactories().calls, InOrder());
  EXPECT_THAT(TheFactories().alive, SizeIs(4));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
  manager.reset();
  EXPECT_THAT(TheFactories().alive, IsEmpty());
}

TEST_P(PackManagerFactoriesTest, CreateStopsAtTheFirstFailureWithItsLineAlone) {
  const std::string& failing = InOrder()[GetParam()];
  TheFactories().failing = failing;
  EXPECT_EQ(PackManager::Create(), nullptr);
  const auto end = InOrder().begin() + static_cast<std::ptrdiff_t>(GetParam()) + 1;
  EXPECT_THAT(TheFactories().calls, ElementsAreArray(InOrder().begin(), end));
  EXPECT_THAT(TheFactories().alive, IsEmpty());
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(ErrorLine("pack_manager.cpp", "Failed to create \"" + failing + "\"")));
}

INSTANTIATE_TEST_SUITE_P(Each, PackManagerFactoriesTest, testing::Range(std::size_t{0}, std::size_t{4}),
                         [](const auto& test) { return InOrder()[test.param]; });

}  // namespace
}  // namespace orbamira::updater
