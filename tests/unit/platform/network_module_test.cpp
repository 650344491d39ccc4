#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/cpr_session.h"
#include "platform/download_wrapper.h"
#include "platform/network/module.h"
#include "platform/network/request.h"
#include "tests/support/http_server.h"
#include "tests/support/test_root.h"

// The platform's shared library, loaded as a host's plugin may load it: by a path of the host's choice, and with no
// symbol left to others.
namespace orbamira {
namespace {

using test::HttpRequest;
using test::HttpResponse;
using test::HttpServer;
using test::ReadFile;
using test::TempDir;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace fs = std::filesystem;

const fs::path kLibrary = ORBAMIRA_TEST_LIBRARY;
const fs::path kModule = ORBAMIRA_TEST_MODULE;

class Library {
 public:
  explicit Library(const fs::path& file) : handle_(dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) {
      throw std::runtime_error(dlerror());  // NOLINT(concurrency-mt-unsafe): there is one thread
    }
  }

  [[nodiscard]] std::shared_ptr<wrapper::DownloadWrapper> MakeDownload() const {
    return Find<std::shared_ptr<wrapper::DownloadWrapper>()>("_ZN8orbamira7wrapper15DownloadWrapper6CreateEv")();
  }
  [[nodiscard]] std::shared_ptr<wrapper::ICprSession> MakeSession() const {
    return Find<std::shared_ptr<wrapper::ICprSession>()>("_ZN8orbamira7wrapper10CprSession6CreateEv")();
  }
  [[nodiscard]] NetworkReply Ask(const NetworkRequest& request) const {
    return Find<NetworkReply(const NetworkRequest&)>("_ZN8orbamira10AskNetworkERKNS_14NetworkRequestE")(request);
  }

 private:
  template <typename Function>
  [[nodiscard]] Function* Find(const char* name) const {
    void* const found = dlsym(handle_, name);
    if (found == nullptr) {
      throw std::runtime_error(dlerror());  // NOLINT(concurrency-mt-unsafe): there is one thread
    }
    return reinterpret_cast<Function*>(found);
  }

  void* handle_;
};

// Where the library looks for its module.
fs::path ModuleOf(const fs::path& library) { return library.parent_path() / "orbamira" / kModule.filename(); }

std::string LoadedFiles() { return ReadFile("/proc/self/maps"); }

class NetworkModuleTest : public testing::Test {
 protected:
  // The body that the download gets, or why it failed.
  std::string Download(const Library& library) {
    const std::shared_ptr<wrapper::DownloadWrapper> download = library.MakeDownload();
    download->SetUrl(server_.Url());
    std::ofstream file(dir_.File("body"), std::ios::binary);
    try {
      download->DownloadToFile(file);
    } catch (const std::exception& error) {
      return error.what();
    }
    return ReadFile(dir_.File("body"));
  }

  // A copy of the library, with no module beside it.
  fs::path CopyOfLibrary() {
    fs::create_directories(dir_.File("lib/orbamira"));
    fs::path copy = dir_.File("lib/liborbamira_platform.so.1");
    fs::copy_file(kLibrary, copy);
    return copy;
  }

  void ExpectFailures(const Library& library, const std::string& reason) {
    EXPECT_THAT(Download(library), HasSubstr(reason));

    const NetworkReply reply = library.Ask({.url = server_.Url(), .most_bytes = 100});
    EXPECT_EQ(reply.status, 0);
    EXPECT_TRUE(reply.failed);
    EXPECT_THAT(reply.error, HasSubstr(reason));

    const std::shared_ptr<wrapper::ICprSession> session = library.MakeSession();
    session->SetUrl(cpr::Url(server_.Url()));
    std::ofstream file(dir_.File("session"));
    const cpr::Response response = session->DownloadToFile(file);
    EXPECT_EQ(response.status_code, 0);
    EXPECT_TRUE(response.error);
    EXPECT_THAT(response.error.message, HasSubstr(reason));
  }

  HttpServer server_{[](const HttpRequest&) { return HttpResponse{.body = "body"}; }};
  TempDir dir_;
};

TEST_F(NetworkModuleTest, NetworkModuleIsLoadedWithLibcurlWhenSomethingIsFetched) {
  const Library library(kLibrary);
  const std::shared_ptr<wrapper::ICprSession> session = library.MakeSession();
  session->SetUrl(cpr::Url(server_.Url()));
  EXPECT_THAT(LoadedFiles(), AllOf(HasSubstr("liborbamira_platform"), Not(HasSubstr("libcurl")),
                                   Not(HasSubstr("libcpr")), Not(HasSubstr("/orbamira/network.so"))));
  std::ofstream file(dir_.File("session"));
  EXPECT_EQ(session->DownloadToFile(file).status_code, 200);
  EXPECT_THAT(LoadedFiles(), AllOf(HasSubstr("libcurl"), HasSubstr("/orbamira/network.so")));
}

TEST_F(NetworkModuleTest, NetworkModuleIsFoundWhereverTheProcessHasGoneSince) {
  fs::current_path(kLibrary.parent_path());
  const Library library("./" + kLibrary.filename().string());
  fs::current_path("/");
  EXPECT_EQ(Download(library), "body");
}

TEST_F(NetworkModuleTest, NetworkModuleThatIsMissingIsTheReasonOfTheFailure) {
  const fs::path copy = CopyOfLibrary();
  ExpectFailures(Library(copy), "cannot load the network module: " + ModuleOf(copy).string());
}

TEST_F(NetworkModuleTest, NetworkModuleOfAnotherVersionIsNotUsed) {
  const fs::path copy = CopyOfLibrary();
  fs::copy_file(ORBAMIRA_TEST_OTHER_MODULE, ModuleOf(copy));
  ExpectFailures(Library(copy), "is not of version " ORBAMIRA_TEST_VERSION);
}

TEST_F(NetworkModuleTest, NetworkModuleServesItsOwnVersionOnly) {
  void* const module = dlopen(kModule.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr);
  const auto network = reinterpret_cast<decltype(&orbamira_network)>(dlsym(module, "orbamira_network"));
  ASSERT_NE(network, nullptr);
  EXPECT_NE(network(ORBAMIRA_TEST_VERSION), nullptr);
  EXPECT_EQ(network(ORBAMIRA_TEST_VERSION ".1"), nullptr);
}

TEST_F(NetworkModuleTest, NetworkModuleThatComesBackIsLoaded) {
  const fs::path copy = CopyOfLibrary();
  const Library library(copy);
  EXPECT_THAT(Download(library), HasSubstr("cannot load the network module"));
  // Only from its place in the build folder does a module find the libraries that it needs.
  ASSERT_NE(dlopen(kModule.c_str(), RTLD_NOW | RTLD_LOCAL), nullptr);
  fs::copy_file(kModule, ModuleOf(copy));
  EXPECT_EQ(Download(library), "body");
}

TEST_F(NetworkModuleTest, NetworkModuleIsLoadedByThreadsAtOnce) {
  const Library library(kLibrary);
  std::vector<NetworkReply> replies(8);
  std::vector<std::thread> threads;
  threads.reserve(replies.size());
  for (NetworkReply& reply : replies) {
    threads.emplace_back([&] { reply = library.Ask({.url = server_.Url(), .most_bytes = 100}); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const NetworkReply& reply : replies) {
    EXPECT_EQ(reply.body, "body") << reply.error;
  }
}

}  // namespace
}  // namespace orbamira
