#include <gmock/gmock.h>

#include "platform/cpr_session.h"
#include "platform/download_wrapper.h"
#include "platform/exception.h"
#include "platform/key_value_store.h"
#include "platform/orba_core_wrapper.h"
#include "platform/orba_pkg_wrapper.h"
#include "platform/orba_sdk_wrapper.h"
#include "platform/orba_zelo_wrapper.h"
#include "tests/support/vtable.h"

// The two destructors take slots 0 and 1.
namespace orbamira {
namespace {

using test::SlotOf;

TEST(InterfaceOrderTest, CoreServices) {
  EXPECT_EQ(SlotOf(&wrapper::IOrbaCoreWrapper::RunCommand), 2);
  EXPECT_EQ(SlotOf(&wrapper::IOrbaCoreWrapper::GetKeyValue), 3);
}

TEST(InterfaceOrderTest, PackageServices) { EXPECT_EQ(SlotOf(&wrapper::IOrbaPkgWrapper::CheckFileChecksum), 2); }

TEST(InterfaceOrderTest, SdkServices) { EXPECT_EQ(SlotOf(&wrapper::IOrbaSDKWrapper::MakeDirectory), 2); }

TEST(InterfaceOrderTest, AccountServices) {
  EXPECT_EQ(SlotOf(&wrapper::IOrbaZeloWrapper::GetTimezone), 2);
  EXPECT_EQ(SlotOf(&wrapper::IOrbaZeloWrapper::GetUserId), 3);
}

TEST(InterfaceOrderTest, HttpSession) {
  EXPECT_EQ(SlotOf(&wrapper::ICprSession::DownloadToFile), 2);
  EXPECT_EQ(SlotOf(&wrapper::ICprSession::SetUrl), 3);
}

TEST(InterfaceOrderTest, Download) {
  EXPECT_EQ(SlotOf(&wrapper::DownloadWrapper::DownloadToFile), 2);
  EXPECT_EQ(SlotOf(&wrapper::DownloadWrapper::SetUrl), 3);
  EXPECT_EQ(SlotOf(&wrapper::DownloadWrapper::SetProgressCallback), 4);
}

TEST(InterfaceOrderTest, Store) {
  EXPECT_EQ(SlotOf(&store::IKeyValueStore::Has), 2);
  EXPECT_EQ(SlotOf(&store::IKeyValueStore::Get), 3);
  EXPECT_EQ(SlotOf(&store::IKeyValueStore::Set), 4);
  EXPECT_EQ(SlotOf(&store::IKeyValueStore::Clear), 5);
}

TEST(InterfaceOrderTest, Exception) { EXPECT_EQ(SlotOf(&exception::BaseException::what), 2); }

// What the numbers above are worth: the slot that the helper names is the one that a caller of the interface reaches.
TEST(InterfaceOrderTest, ASlotHoldsTheOperationItIsNamedFor) {
  struct Recorder : wrapper::IOrbaSDKWrapper {
    int MakeDirectory(const std::string& path) override { return path == "here" ? 5 : -1; }
  };
  Recorder recorder;
  using Function = int (*)(wrapper::IOrbaSDKWrapper*, const std::string&);
  Function const* table = nullptr;
  std::memcpy(&table, static_cast<const void*>(static_cast<wrapper::IOrbaSDKWrapper*>(&recorder)), sizeof table);
  EXPECT_EQ(table[SlotOf(&wrapper::IOrbaSDKWrapper::MakeDirectory)](&recorder, "here"), 5);
}

}  // namespace
}  // namespace orbamira
