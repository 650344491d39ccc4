#include "platform/key_value_store.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <json/json.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "platform/file_lock.h"
#include "tests/support/disk_calls.h"
#include "tests/support/error_text.h"
#include "tests/support/fake_key_value_store.h"
#include "tests/support/forked.h"
#include "tests/support/log_capture.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira::store {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class RealStore {
 public:
  IKeyValueStore& store() { return *store_; }

 private:
  test::TempDir folder_;
  std::unique_ptr<IKeyValueStore> store_ = FileKeyValueStore::Create(folder_.File("store"));
};

class FakeStore {
 public:
  IKeyValueStore& store() { return store_; }

 private:
  test::FakeKeyValueStore store_;
};

// What every store promises.
template <typename Store>
class KeyValueStoreContractTest : public testing::Test {
 protected:
  Store holder_;
  IKeyValueStore& store_ = holder_.store();
};

using Stores = testing::Types<RealStore, FakeStore>;
TYPED_TEST_SUITE(KeyValueStoreContractTest, Stores);

TYPED_TEST(KeyValueStoreContractTest, IsEmptyAtFirst) {
  EXPECT_FALSE(this->store_.Has("key"));
  EXPECT_EQ(this->store_.Get("key"), "");
}

TYPED_TEST(KeyValueStoreContractTest, GetGivesWhatWasSet) {
  this->store_.Set("key", "value");
  EXPECT_TRUE(this->store_.Has("key"));
  EXPECT_EQ(this->store_.Get("key"), "value");
  EXPECT_FALSE(this->store_.Has("Key"));
}

TYPED_TEST(KeyValueStoreContractTest, SetReplacesTheValue) {
  this->store_.Set("key", "a longer value");
  this->store_.Set("key", "b");
  EXPECT_EQ(this->store_.Get("key"), "b");
}

TYPED_TEST(KeyValueStoreContractTest, SetKeepsTheOtherKeys) {
  this->store_.Set("a", "1");
  this->store_.Set("b", "2");
  this->store_.Set("a", "3");
  EXPECT_EQ(this->store_.Get("a"), "3");
  EXPECT_EQ(this->store_.Get("b"), "2");
}

TYPED_TEST(KeyValueStoreContractTest, AnEmptyValueIsPresent) {
  this->store_.Set("key", "");
  EXPECT_TRUE(this->store_.Has("key"));
  EXPECT_EQ(this->store_.Get("key"), "");
}

TYPED_TEST(KeyValueStoreContractTest, GetDoesNotMakeTheKey) {
  EXPECT_EQ(this->store_.Get("key"), "");
  EXPECT_FALSE(this->store_.Has("key"));
}

TYPED_TEST(KeyValueStoreContractTest, AnyTextComesBackAsItWas) {
  std::string every_byte;
  for (int byte = 0; byte < 256; ++byte) {
    every_byte += static_cast<char>(byte);
  }
  const std::vector<std::string> texts = {
      every_byte, "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", "\"\\/\b\f\n\r\t", std::string(100'000, 'x'), "\\u0041", "{}",
      " "};
  for (const std::string& text : texts) {
    this->store_.Set("key", text);
    EXPECT_EQ(this->store_.Get("key"), text);
    this->store_.Set(text, "value");
    EXPECT_EQ(this->store_.Get(text), "value");
  }
}

TYPED_TEST(KeyValueStoreContractTest, TheEmptyKeyIsAKey) {
  EXPECT_FALSE(this->store_.Has(""));
  this->store_.Set("", "value");
  EXPECT_EQ(this->store_.Get(""), "value");
}

TYPED_TEST(KeyValueStoreContractTest, ClearEmptiesTheStore) {
  this->store_.Clear();
  this->store_.Set("a", "1");
  this->store_.Set("b", "2");
  this->store_.Clear();
  EXPECT_FALSE(this->store_.Has("a"));
  EXPECT_EQ(this->store_.Get("b"), "");
  this->store_.Set("b", "3");
  EXPECT_FALSE(this->store_.Has("a"));
  EXPECT_EQ(this->store_.Get("b"), "3");
}

TEST(FakeKeyValueStoreTest, RecordsWhatIsWritten) {
  test::FakeKeyValueStore store;
  store.Clear();
  store.Set("a", "1");
  EXPECT_THAT(store.writes(), ElementsAre("Clear", "Set a"));
}

TEST(FakeKeyValueStoreTest, FailsOnDemandAndStaysAsItWas) {
  test::FakeKeyValueStore store;
  store.FailWriteAfter(1);
  store.Set("a", "1");
  EXPECT_THROW(store.Set("a", "2"), std::system_error);
  EXPECT_EQ(store.Get("a"), "1");
  store.Set("a", "3");
  store.FailReads();
  EXPECT_THROW(store.Get("a"), std::system_error);
  EXPECT_THROW(store.Has("a"), std::system_error);
}

class FileKeyValueStoreTest : public testing::Test {
 protected:
  [[nodiscard]] std::unique_ptr<IKeyValueStore> Open() const { return FileKeyValueStore::Create(path_); }

  [[nodiscard]] std::vector<std::string> FilesInFolder() const {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder_.path())) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  [[nodiscard]] Json::Value Content() const {
    Json::Value root;
    std::string problems;
    const std::string text = test::ReadFile(path_);
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &problems)) << problems;
    return root;
  }

  // Writes into the file in place, as an editor does, until the clock of the file system has moved on.
  void Overwrite(const std::string& text) const {
    struct stat before {};
    struct stat after {};
    ASSERT_EQ(stat(path_.c_str(), &before), 0);
    do {
      test::WriteFile(path_, text);
      ASSERT_EQ(stat(path_.c_str(), &after), 0);
    } while (after.st_ctim.tv_sec == before.st_ctim.tv_sec && after.st_ctim.tv_nsec == before.st_ctim.tv_nsec);
  }

  // Breaks the file after the store had "old". Gives the path of a good file beside it, with "new".
  [[nodiscard]] std::string BreakBesideAGoodOne(IKeyValueStore& store) const {
    std::string other = folder_.File("other");
    store.Set("key", "new");
    fs::copy_file(path_, other);
    store.Set("key", "old");
    test::WriteFile(path_, "broken");
    return other;
  }

  test::TempDir folder_;
  const std::string path_ = folder_.File("store");
};

TEST_F(FileKeyValueStoreTest, CreateMakesAnEmptyStore) {
  ASSERT_NE(Open(), nullptr);
  EXPECT_EQ(Content(), Json::Value(Json::objectValue));
  EXPECT_THAT(FilesInFolder(), ElementsAre("store"));
}

TEST_F(FileKeyValueStoreTest, CreateKeepsWhatIsThere) {
  Open()->Set("key", "value");
  EXPECT_EQ(Open()->Get("key"), "value");
}

TEST_F(FileKeyValueStoreTest, CreateReadsAFileOfAnotherHand) {
  test::WriteFile(path_, " { \"status\" :\t\"lost\", \"euro\": \"\\u20ac\" } \n\n");
  EXPECT_EQ(Open()->Get("status"), "lost");
  EXPECT_EQ(Open()->Get("euro"), "\xE2\x82\xAC");
}

TEST_F(FileKeyValueStoreTest, CreateMakesAMissingFolder) {
  EXPECT_NE(FileKeyValueStore::Create(folder_.File("missing/inner/store")), nullptr);
  EXPECT_EQ(fs::status(folder_.path() / "missing/inner").permissions(), fs::perms(0755));
}

TEST_F(FileKeyValueStoreTest, CreateGivesNothingWithoutAName) { EXPECT_EQ(FileKeyValueStore::Create(""), nullptr); }

TEST_F(FileKeyValueStoreTest, CreateGivesNothingForAFileThatIsClosedToUs) {
  Open()->Set("key", "value");
  fs::permissions(test::Root(), fs::perms(0711));
  fs::permissions(folder_.path(), fs::perms(0777));
  fs::permissions(path_, fs::perms::none);
  test::Forked user([&] {
    test::BecomeOrdinaryUser();
    return Open() == nullptr ? 0 : 1;
  });
  EXPECT_EQ(user.Wait(), 0);
  EXPECT_THAT(FilesInFolder(), ElementsAre("store"));
}

TEST_F(FileKeyValueStoreTest, CreateGivesNothingWhenTheFileCannotBeMade) {
  fs::permissions(test::Root(), fs::perms(0711));
  fs::permissions(folder_.path(), fs::perms(0555));
  test::Forked user([&] {
    test::BecomeOrdinaryUser();
    return Open() == nullptr ? 0 : 1;
  });
  EXPECT_EQ(user.Wait(), 0);
  fs::permissions(folder_.path(), fs::perms(0755));
  EXPECT_THAT(FilesInFolder(), IsEmpty());
}

TEST_F(FileKeyValueStoreTest, AnotherUserMayReadButNotWrite) {
  const auto store = Open();
  store->Set("key", "value");
  fs::permissions(test::Root(), fs::perms(0711));
  fs::permissions(folder_.path(), fs::perms(0555));
  test::Forked user([&] {
    test::BecomeOrdinaryUser();
    const auto reader = Open();
    if (reader->Get("key") != "value") {
      return 1;
    }
    try {
      reader->Set("key", "other");
      return 2;
    } catch (const std::system_error&) {
      return reader->Get("key") == "value" ? 0 : 3;
    }
  });
  EXPECT_EQ(user.Wait(), 0);
  fs::permissions(folder_.path(), fs::perms(0755));
  EXPECT_EQ(store->Get("key"), "value");
}

TEST_F(FileKeyValueStoreTest, TheFileIsAJsonObjectOfTexts) {
  const auto store = Open();
  store->Set("status", "up_to_date");
  store->Set("download_size_now", "12");
  Json::Value expected(Json::objectValue);
  expected["status"] = "up_to_date";
  expected["download_size_now"] = "12";
  EXPECT_EQ(Content(), expected);
}

TEST_F(FileKeyValueStoreTest, TheFileIsWrittenForPeopleToRead) {
  const auto store = Open();
  store->Set("a", "1");
  store->Set("b", "2");
  EXPECT_THAT(test::ReadFile(path_), testing::StartsWith("{\n  \"a\" : \"1\",\n  \"b\" : \"2\"\n}   "));
}

TEST_F(FileKeyValueStoreTest, AnotherObjectReadsAnyTextAsItWas) {
  for (const char* text : {"J\xC3\xBCrgen", "\xFF\xC3 no UTF-8", "\x01\x7F\"\\"}) {
    Open()->Set("key", text);
    EXPECT_EQ(Open()->Get("key"), text);
  }
}

TEST_F(FileKeyValueStoreTest, TheFileIsReadableForAllWhateverTheUmask) {
  const mode_t before = umask(0077);
  const auto store = Open();
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0644));
  store->Set("key", "value");
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0644));
  store->Clear();
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0644));
  umask(before);
}

TEST_F(FileKeyValueStoreTest, NoTemporaryFileStays) {
  const auto store = Open();
  store->Set("key", "value");
  store->Clear();
  EXPECT_THAT(FilesInFolder(), ElementsAre("store"));
}

TEST_F(FileKeyValueStoreTest, SeesWhatAnotherObjectWrote) {
  const auto writer = Open();
  const auto reader = Open();
  for (int i = 0; i < 50; ++i) {
    const std::string value(1, static_cast<char>('a' + i % 20));
    writer->Set("key", value);
    EXPECT_EQ(reader->Get("key"), value);
    reader->Set("other", value);
    EXPECT_EQ(writer->Get("other"), value);
  }
  writer->Clear();
  EXPECT_FALSE(reader->Has("key"));
}

TEST_F(FileKeyValueStoreTest, SeesWhatAnotherProcessWrote) {
  const auto store = Open();
  EXPECT_FALSE(store->Has("key"));
  test::Forked other([&] {
    Open()->Set("key", "value");
    return 0;
  });
  EXPECT_EQ(other.Wait(), 0);
  EXPECT_EQ(store->Get("key"), "value");
}

TEST_F(FileKeyValueStoreTest, SeesWhatWasWrittenInPlace) {
  const auto store = Open();
  store->Set("key", "1");
  Overwrite(R"({"key":"2"})");
  EXPECT_EQ(store->Get("key"), "2");
  Overwrite(R"({"key":"3"})");  // of the same size
  EXPECT_EQ(store->Get("key"), "3");
}

TEST_F(FileKeyValueStoreTest, IsEmptyWhileTheFileIsMissing) {
  const auto store = Open();
  store->Set("key", "value");
  fs::remove(path_);
  EXPECT_FALSE(store->Has("key"));
  EXPECT_EQ(store->Get("key"), "");
  EXPECT_FALSE(fs::exists(path_));
  store->Set("other", "1");
  EXPECT_EQ(Open()->Get("other"), "1");
  EXPECT_FALSE(Open()->Has("key"));
}

TEST_F(FileKeyValueStoreTest, ThrowsWhenTheFolderIsGone) {
  const auto store = Open();
  fs::remove_all(folder_.path());
  EXPECT_THROW(store->Set("key", "value"), std::system_error);
  EXPECT_THROW(store->Clear(), std::system_error);
  fs::create_directory(folder_.path());
}

class BrokenStoreTest : public FileKeyValueStoreTest, public testing::WithParamInterface<std::string> {};

TEST_P(BrokenStoreTest, IsSetAsideAndAnEmptyStoreTakesItsPlace) {
  test::WriteFile(path_, GetParam());
  test::LogCapture::Clear();
  const auto store = Open();
  ASSERT_NE(store, nullptr);
  EXPECT_FALSE(store->Has("key"));
  EXPECT_EQ(test::ReadFile(path_ + ".broken"), GetParam());
  EXPECT_EQ(Content(), Json::Value(Json::objectValue));
  EXPECT_THAT(FilesInFolder(), UnorderedElementsAre("store", "store.broken"));
  EXPECT_THAT(test::LogCapture::Lines(),
              ElementsAre(test::ErrorLine("key_value_store.cpp", "Set aside broken store " + path_)));
  store->Set("key", "new");
  EXPECT_EQ(Open()->Get("key"), "new");
}

INSTANTIATE_TEST_SUITE_P(FileKeyValueStore, BrokenStoreTest,
                         testing::Values("", "{", "{\"key\":\"value\"", "{\"key\":\"value\"} x", "[]", "\"text\"",
                                         "null", "{\"key\":1}", "{\"key\":null}", "{\"key\":{}}", "{\"key\":[\"a\"]}",
                                         "{\"key\":\"a\",\"key\":\"b\"}", "{'key':'a'}", "{\"key\":\"a\",}",
                                         "// text\n{}", std::string("\0\xFF\x01", 3), std::string(500'000, '['),
                                         std::string(100'000, '{'),
                                         "{\"key\":\"" + std::string(std::size_t{1} << 20U, 'x') + "\"}"));

TEST_F(FileKeyValueStoreTest, AFileThatCannotBeReadIsSetAside) {
  fs::create_symlink("/proc/self/mem", path_);  // nothing is at its beginning: reading there is an error
  test::LogCapture::Clear();
  const auto store = Open();
  ASSERT_NE(store, nullptr);
  EXPECT_THAT(test::LogCapture::Lines(),
              ElementsAre(test::ErrorLine("key_value_store.cpp", "Set aside broken store " + path_)));
  store->Set("key", "value");
  EXPECT_EQ(Open()->Get("key"), "value");
}

// What can stand in place of the store without being a file; `aside` is where it is to be found afterwards.
struct Stranger {
  const char* name;
  std::function<void(const std::string& path)> make;
  std::function<bool(const std::string& aside)> is;
};

void PrintTo(const Stranger& stranger, std::ostream* out) { *out << stranger.name; }

std::vector<Stranger> Strangers() {
  return {
      {"AnEmptyFolder", [](const std::string& path) { fs::create_directory(path); },
       [](const std::string& aside) { return fs::is_directory(aside); }},
      {"AFolder", [](const std::string& path) { test::WriteFile(path + "/deep/file", "text"); },
       [](const std::string& aside) { return test::ReadFile(aside + "/deep/file") == "text"; }},
      {"APipe", [](const std::string& path) { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); },
       [](const std::string& aside) { return fs::is_fifo(aside); }},
      {"ASocket", [](const std::string& path) { ASSERT_EQ(mknod(path.c_str(), S_IFSOCK | 0600, 0), 0); },
       [](const std::string& aside) { return fs::is_socket(aside); }},
      {"ALinkToAFolder", [](const std::string& path) { fs::create_directory_symlink(test::Root(), path); },
       [](const std::string& aside) { return fs::read_symlink(aside) == test::Root(); }},
      {"ALinkToAnEndlessFile", [](const std::string& path) { fs::create_symlink("/dev/zero", path); },
       [](const std::string& aside) { return fs::read_symlink(aside) == "/dev/zero"; }},
      {"ABrokenFile", [](const std::string& path) { test::WriteFile(path, "broken"); },
       [](const std::string& aside) { return test::ReadFile(aside) == "broken"; }},
  };
}

std::string NameOf(const testing::TestParamInfo<Stranger>& info) { return info.param.name; }

class StrangeStoreTest : public FileKeyValueStoreTest, public testing::WithParamInterface<Stranger> {};

TEST_P(StrangeStoreTest, IsSetAsideAndAnEmptyStoreTakesItsPlace) {
  GetParam().make(path_);
  test::LogCapture::Clear();
  const auto store = Open();
  ASSERT_NE(store, nullptr);
  EXPECT_FALSE(store->Has("key"));
  EXPECT_TRUE(GetParam().is(path_ + ".broken"));
  EXPECT_EQ(Content(), Json::Value(Json::objectValue));
  EXPECT_THAT(FilesInFolder(), UnorderedElementsAre("store", "store.broken"));
  EXPECT_THAT(test::LogCapture::Lines(),
              ElementsAre(test::ErrorLine("key_value_store.cpp", "Set aside broken store " + path_)));
  store->Set("key", "new");
  EXPECT_EQ(Open()->Get("key"), "new");
}

TEST_P(StrangeStoreTest, IsSetAsideUnderAnOpenStore) {
  const auto store = Open();
  store->Set("key", "old");
  fs::remove(path_);
  GetParam().make(path_);
  store->Set("key", "new");
  EXPECT_EQ(Open()->Get("key"), "new");
  EXPECT_TRUE(GetParam().is(path_ + ".broken"));
}

TEST_P(StrangeStoreTest, ReplacesWhateverWasSetAsideEarlier) {
  for (const Stranger& earlier : Strangers()) {
    earlier.make(path_ + ".broken");
    fs::remove_all(path_);
    GetParam().make(path_);
    test::LogCapture::Clear();
    EXPECT_FALSE(Open()->Has("key"));
    EXPECT_THAT(test::LogCapture::Lines(),
                ElementsAre(test::ErrorLine("key_value_store.cpp", "Set aside broken store " + path_)));
    EXPECT_TRUE(GetParam().is(path_ + ".broken")) << earlier.name;
    EXPECT_THAT(FilesInFolder(), UnorderedElementsAre("store", "store.broken"));
    fs::remove_all(path_ + ".broken");
  }
}

INSTANTIATE_TEST_SUITE_P(FileKeyValueStore, StrangeStoreTest, testing::ValuesIn(Strangers()), NameOf);

TEST_F(FileKeyValueStoreTest, ALinkThatLeadsNowhereIsAMissingFile) {
  for (const char* target : {"missing", "store"}) {
    fs::create_symlink(target, path_);
    const auto store = Open();
    ASSERT_NE(store, nullptr);
    EXPECT_FALSE(store->Has("key"));
    store->Set("key", "value");
    EXPECT_EQ(Open()->Get("key"), "value");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path_)));
    fs::remove(path_);
  }
}

TEST_F(FileKeyValueStoreTest, ABrokenFileReplacesAnEarlierOne) {
  test::WriteFile(path_, "first");
  const auto store = Open();
  Overwrite("second");
  EXPECT_FALSE(store->Has("key"));
  EXPECT_EQ(test::ReadFile(path_ + ".broken"), "second");
}

TEST_F(FileKeyValueStoreTest, ABrokenFileIsSetAsideByClearAndSetAsWell) {
  const auto store = Open();
  Overwrite("first");
  store->Clear();
  EXPECT_EQ(test::ReadFile(path_ + ".broken"), "first");
  Overwrite("second");
  store->Set("key", "value");
  EXPECT_EQ(test::ReadFile(path_ + ".broken"), "second");
  EXPECT_EQ(store->Get("key"), "value");
}

TEST_F(FileKeyValueStoreTest, AGoodFileThatIsSetAsideForTheBrokenOneComesBack) {
  Open()->Set("key", "value");
  const std::string other = folder_.File("other");
  fs::copy_file(path_, other);
  test::WriteFile(path_, "broken");
  test::DiskCalls calls;
  calls.BeforeRename([&] { fs::rename(other, path_); });
  EXPECT_EQ(Open()->Get("key"), "value");
  EXPECT_THAT(FilesInFolder(), ElementsAre("store"));
}

// Not the values from before the file broke, whether the good one comes just before the broken one is set aside or just
// after.
TEST_F(FileKeyValueStoreTest, AGoodFileThatTakesTheBrokenOnesPlaceIsReadAtOnce) {
  for (const bool is_aside : {false, true}) {
    const auto store = Open();
    const std::string other = BreakBesideAGoodOne(*store);
    test::DiskCalls calls;
    const auto put = [&] { fs::rename(other, path_); };
    calls.BeforeRename([&] { is_aside ? calls.BeforeRename(put) : put(); });
    EXPECT_EQ(store->Get("key"), "new") << is_aside;
  }
}

// It was not read, and an error was logged for a file that was good. What was set aside earlier stays.
TEST_F(FileKeyValueStoreTest, AGoodFileThatComesWhileAFolderIsInTheWayIsReadAtOnce) {
  const auto store = Open();
  const std::string other = BreakBesideAGoodOne(*store);
  test::WriteFile(path_ + ".broken/inner", "earlier");
  test::LogCapture::Clear();
  test::DiskCalls calls;
  calls.BeforeRename([&] { fs::rename(other, path_); });
  EXPECT_EQ(store->Get("key"), "new");
  EXPECT_EQ(test::ReadFile(path_ + ".broken/inner"), "earlier");
  EXPECT_THAT(test::LogCapture::Lines(), IsEmpty());
}

// Another process is just about to put an empty store in its place.
TEST_F(FileKeyValueStoreTest, ABrokenFileThatIsGoneMeanwhileIsMissing) {
  const auto store = Open();
  store->Set("key", "old");
  test::WriteFile(path_, "broken");
  test::LogCapture::Clear();
  test::DiskCalls calls;
  calls.BeforeRename([&] { fs::remove(path_); });
  EXPECT_FALSE(store->Has("key"));
  EXPECT_THAT(test::LogCapture::Lines(), IsEmpty());
}

TEST_F(FileKeyValueStoreTest, WhatCannotBeSetAsideReadsAsEmptyAndStays) {
  fs::permissions(test::Root(), fs::perms(0711));
  for (const char* file : {"store", "store/file"}) {
    test::WriteFile(folder_.path() / file, "broken");
    fs::permissions(folder_.path(), fs::perms(0555));
    test::Forked user([&] {
      test::BecomeOrdinaryUser();
      test::LogCapture::Clear();
      const auto store = Open();
      if (store == nullptr || store->Has("key") || store->Has("other")) {
        return 1;
      }
      const std::vector<test::LogLine> expected = {test::ErrorLine(
          "key_value_store.cpp", "Failed to set aside broken store " + path_ + ": " + test::ErrorText(EACCES))};
      return test::LogCapture::Lines() == expected ? 0 : 2;
    });
    EXPECT_EQ(user.Wait(), 0) << file;
    fs::permissions(folder_.path(), fs::perms(0755));
    EXPECT_THAT(FilesInFolder(), ElementsAre("store"));
    EXPECT_EQ(test::ReadFile(folder_.path() / file), "broken");
    fs::remove_all(path_);
  }
}

TEST_F(FileKeyValueStoreTest, SetRefusesWhatCouldNotBeReadAgain) {
  const auto store = Open();
  store->Set("key", "value");
  EXPECT_THROW(store->Set("key", std::string(std::size_t{1} << 20U, 'x')), std::system_error);
  EXPECT_EQ(store->Get("key"), "value");
  store->Set("key", std::string(std::size_t{1'000'000}, 'x'));
  EXPECT_EQ(Open()->Get("key").size(), 1'000'000U);
  const std::size_t most = 1'000'000 + (std::size_t{1} << 20U) - fs::file_size(path_);
  EXPECT_THROW(store->Set("key", std::string(most + 1, 'x')), std::system_error);
  store->Set("key", std::string(most, 'x'));
  EXPECT_EQ(Open()->Get("key").size(), most);
}

TEST_F(FileKeyValueStoreTest, ReadsAFileOfAMebibyteAndNoLargerOne) {
  std::string text = R"({"key": "value"})";
  text.resize(std::size_t{1} << 20U, ' ');
  test::WriteFile(path_, text);
  EXPECT_EQ(Open()->Get("key"), "value");
  test::WriteFile(path_, text + ' ');
  EXPECT_EQ(Open()->Get("key"), "");
}

TEST_F(FileKeyValueStoreTest, AFailedWriteLeavesEverythingAsItWas) {
  Open()->Set("key", "value");
  test::Forked writer([&] {
    const auto store = Open();
    if (std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR) {
      return 4;
    }
    const rlimit limit{64, 64};  // a disk that is full after 64 bytes
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
      return 1;
    }
    try {
      store->Set("key", std::string(1000, 'x'));
      return 2;
    } catch (const std::system_error& error) {
      return error.code().value() == EFBIG && store->Get("key") == "value" ? 0 : 3;
    }
  });
  EXPECT_EQ(writer.Wait(), 0);
  EXPECT_EQ(Open()->Get("key"), "value");
  EXPECT_THAT(FilesInFolder(), ElementsAre("store"));
}

TEST_F(FileKeyValueStoreTest, AReaderWithoutTheLockNeverSeesATornFile) {
  const std::string first(5000, 'a');
  const std::string second(70'000, 'b');
  Open()->Set("key", first);
  const auto read_until_done = [&] {
    const auto store = Open();
    std::string done;
    while (done.empty()) {
      const std::string value = store->Get("key");
      const std::string text = test::ReadFile(path_);
      if ((value != first && value != second) || !text.ends_with("\n}\n")) {
        return 1;
      }
      done = store->Get("done");
    }
    return 0;
  };
  test::Forked one(read_until_done);
  test::Forked two(read_until_done);
  const auto writer = Open();
  for (int i = 0; i < 200; ++i) {
    writer->Set("key", i % 2 == 0 ? second : first);
  }
  writer->Set("done", "yes");
  EXPECT_EQ(one.Wait(), 0);
  EXPECT_EQ(two.Wait(), 0);
  EXPECT_THAT(FilesInFolder(), ElementsAre("store"));
}

TEST_F(FileKeyValueStoreTest, TwoProcessesWithTheLockLoseNoUpdate) {
  const std::string lock_path = folder_.File("lock");
  const auto count = [&] {
    const auto store = Open();
    for (int i = 0; i < 200; ++i) {
      const FileLock lock(lock_path);
      store->Set("count", std::to_string(store->Has("count") ? std::stoi(store->Get("count")) + 1 : 1));
    }
    return 0;
  };
  test::Forked one(count);
  test::Forked two(count);
  EXPECT_EQ(one.Wait(), 0);
  EXPECT_EQ(two.Wait(), 0);
  EXPECT_EQ(Open()->Get("count"), "400");
}

TEST_F(FileKeyValueStoreTest, CreateNeverReplacesWhatAnotherProcessWrites) {
  for (int round = 0; round < 100; ++round) {
    const std::string path = folder_.File(std::to_string(round));
    test::Forked other([&] { return FileKeyValueStore::Create(path) != nullptr ? 0 : 1; });
    FileKeyValueStore::Create(path)->Set("key", "value");
    EXPECT_EQ(other.Wait(), 0);
    EXPECT_EQ(FileKeyValueStore::Create(path)->Get("key"), "value");
  }
}

// Only an unchanged file is spared the reading: a limit on what may be opened shows that nothing is opened.
TEST_F(FileKeyValueStoreTest, ReadsAnUnchangedFileOnce) {
  Open()->Set("key", "value");
  test::Forked reader([&] {
    const auto store = Open();
    const rlimit none{0, 0};
    if (store->Get("key") != "value" || setrlimit(RLIMIT_NOFILE, &none) != 0) {
      return 1;
    }
    return store->Has("key") && store->Get("key") == "value" ? 0 : 2;
  });
  EXPECT_EQ(reader.Wait(), 0);
}

TEST_F(FileKeyValueStoreTest, KeepsClearOfTheStandardStreams) {
  Open()->Set("key", "value");
  test::Forked host([&] {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    const auto store = Open();
    if (store->Get("key") != "value") {
      return 1;
    }
    store->Set("key", "other");
    return fcntl(STDIN_FILENO, F_GETFD) == -1 && fcntl(STDOUT_FILENO, F_GETFD) == -1 ? 0 : 2;
  });
  EXPECT_EQ(host.Wait(), 0);
}

// A text that fits into a sector of the disk is written in place.
class StoreInPlaceTest : public FileKeyValueStoreTest {
 protected:
  [[nodiscard]] std::unique_ptr<IKeyValueStore> OpenWithValue() const {
    auto store = Open();
    store->Set("key", "value");
    return store;
  }

  [[nodiscard]] struct stat Status() const {
    struct stat status {};
    EXPECT_EQ(lstat(path_.c_str(), &status), 0);
    return status;
  }

  // The longest value that fits beside the marks of JSON.
  [[nodiscard]] std::string LongestValue() const {
    store_->Set("key", "");
    const std::string text = test::ReadFile(path_);
    return std::string(text.size() - text.find_last_not_of(" \n") - 2, 'x');
  }

  // What another process sees of the key when it has set it while these system calls fail; "thrown" when it could
  // not.
  std::string SetWhileFailing(const std::vector<int>& calls, const std::string& value) const {
    test::Forked writer([&] {
      const auto store = Open();
      store->Set("other", "1");
      for (const int call : calls) {
        test::FailSystemCall(call, EIO);
      }
      try {
        store->Set("key", value);
        return store->Get("key") == value ? 0 : 1;
      } catch (const std::system_error&) {
        return store->Get("key") == "value" ? 2 : 3;
      }
    });
    const int status = writer.Wait();
    EXPECT_TRUE(status == 0 || status == 2) << status;
    EXPECT_THAT(FilesInFolder(), ElementsAre("store"));
    return status == 2 ? "thrown" : Open()->Get("key");
  }

  const std::unique_ptr<IKeyValueStore> store_ = OpenWithValue();
  const ino_t file_ = Status().st_ino;
};

TEST_F(StoreInPlaceTest, SetAndClearKeepTheFileAndItsSize) {
  store_->Set("other", "1");
  store_->Clear();
  store_->Set("key", "2");
  EXPECT_EQ(Status().st_ino, file_);
  EXPECT_EQ(Status().st_size, 512);
  EXPECT_TRUE(test::ReadFile(path_).ends_with(" \n"));
  EXPECT_EQ(Content()["key"], "2");
}

TEST_F(StoreInPlaceTest, AnotherObjectAndAnotherProcessGoOnInTheSameFile) {
  Open()->Set("key", "2");
  test::Forked other([&] {
    Open()->Set("other", "3");
    return 0;
  });
  EXPECT_EQ(other.Wait(), 0);
  EXPECT_EQ(Status().st_ino, file_);
  EXPECT_EQ(store_->Get("key"), "2");
  EXPECT_EQ(store_->Get("other"), "3");
}

// A disk writes a sector whole, but not two of them.
TEST_F(StoreInPlaceTest, WhatNeedsMoreThanASectorTakesANewFile) {
  const std::string longest = LongestValue();
  store_->Set("key", longest);
  EXPECT_EQ(Status().st_ino, file_);
  EXPECT_EQ(Status().st_size, 512);
  store_->Set("key", longest + "x");
  EXPECT_NE(Status().st_ino, file_);
  EXPECT_EQ(Status().st_size, 513);
  EXPECT_EQ(Open()->Get("key"), longest + "x");
}

TEST_F(StoreInPlaceTest, ALargeFileIsNeverWrittenInPlace) {
  store_->Set("key", std::string(1000, 'x'));
  const ino_t large = Status().st_ino;
  store_->Set("key", "value");
  const ino_t small = Status().st_ino;
  EXPECT_NE(small, large);
  store_->Set("key", "2");
  EXPECT_EQ(Status().st_ino, small);
  EXPECT_EQ(Open()->Get("key"), "2");
}

// Without a flush the value would not outlive a power cut; where the flush fails, a new file may do.
TEST_F(StoreInPlaceTest, SetThatCannotBeFlushedTakesANewFile) {
  EXPECT_EQ(SetWhileFailing({SYS_fdatasync}, "2"), "2");
  EXPECT_NE(Status().st_ino, file_);
}

TEST_F(StoreInPlaceTest, SetThatCannotBeWrittenTakesANewFile) {
  EXPECT_EQ(SetWhileFailing({SYS_pwrite64}, "2"), "2");
  EXPECT_NE(Status().st_ino, file_);
}

TEST_F(StoreInPlaceTest, SetThatFailsOnEveryRoadLeavesTheOldValue) {
  EXPECT_EQ(SetWhileFailing({SYS_fdatasync, SYS_fsync}, "2"), "thrown");
  EXPECT_EQ(Open()->Get("key"), "value");
  EXPECT_EQ(Status().st_ino, file_);
}

TEST_F(StoreInPlaceTest, AWriteThatIsCutShortLeavesTheOldValue) {
  test::Forked writer([&] {
    const auto store = Open();
    const rlimit limit{64, 64};
    if (std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR || setrlimit(RLIMIT_FSIZE, &limit) != 0) {
      return 1;
    }
    try {
      store->Set("a", "1");  // comes before the key, and so changes more than those 64 bytes
      return 2;
    } catch (const std::system_error&) {
      return store->Get("key") == "value" && !store->Has("a") ? 0 : 3;
    }
  });
  EXPECT_EQ(writer.Wait(), 0);
  EXPECT_EQ(store_->Get("key"), "value");
  EXPECT_THAT(FilesInFolder(), ElementsAre("store"));
}

TEST_F(StoreInPlaceTest, ClearDoesNotWaitForTheDisk) {
  test::Forked writer([&] {
    const auto store = Open();
    store->Set("key", "2");
    test::FailSystemCall(SYS_fdatasync, EIO);
    test::FailSystemCall(SYS_fsync, EIO);
    store->Clear();
    return 0;
  });
  EXPECT_EQ(writer.Wait(), 0);
  EXPECT_FALSE(store_->Has("key"));
  EXPECT_EQ(Status().st_ino, file_);
}

// Who made the file may have died before its name was on the disk.
TEST_F(StoreInPlaceTest, TheFirstSetOfAnObjectSyncsTheFolder) {
  test::Forked writer([&] {
    const auto store = Open();
    test::FailSystemCall(SYS_fsync, EIO);
    try {
      store->Set("key", "2");
      return 1;
    } catch (const std::system_error&) {
      return store->Get("key") == "value" ? 0 : 2;
    }
  });
  EXPECT_EQ(writer.Wait(), 0);
}

TEST_F(StoreInPlaceTest, ALinkIsReplacedAndNotFollowed) {
  const std::string target = folder_.File("target");
  fs::rename(path_, target);
  fs::create_symlink("target", path_);
  store_->Set("key", "2");
  EXPECT_FALSE(fs::is_symlink(path_));
  EXPECT_EQ(FileKeyValueStore::Create(target)->Get("key"), "value");
  EXPECT_EQ(Open()->Get("key"), "2");
}

TEST_F(StoreInPlaceTest, AHardLinkKeepsTheOldValue) {
  const std::string kept = folder_.File("kept");
  fs::create_hard_link(path_, kept);
  store_->Set("key", "2");
  EXPECT_EQ(FileKeyValueStore::Create(kept)->Get("key"), "value");
  EXPECT_EQ(Open()->Get("key"), "2");
}

TEST_F(StoreInPlaceTest, AFileOfAnotherModeIsReplaced) {
  for (const fs::perms mode : {fs::perms(0600), fs::perms(0666), fs::perms(0755)}) {
    fs::permissions(path_, mode);
    store_->Set("key", "2");
    EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0644));
  }
}

TEST_F(StoreInPlaceTest, AFileOfAnotherOwnerIsReplaced) {
  constexpr uid_t kNobody = 65534;
  if (chown(path_.c_str(), kNobody, kNobody) != 0) {
    GTEST_SKIP() << "only root gives a file away";
  }
  store_->Set("key", "2");
  EXPECT_EQ(Status().st_uid, geteuid());
}

TEST_F(StoreInPlaceTest, WhoMayNotReplaceTheFileDoesNotChangeItEither) {
  fs::permissions(test::Root(), fs::perms(0711));
  fs::permissions(folder_.path(), fs::perms(0777));
  fs::remove(path_);
  const auto error_of_set = [&](const std::string& value) {
    test::Forked user([&] {
      test::BecomeOrdinaryUser();
      try {
        Open()->Set("key", value);
      } catch (const std::system_error& error) {
        return error.code().value();
      }
      return 0;
    });
    return user.Wait();
  };
  EXPECT_EQ(error_of_set("value"), 0);
  fs::permissions(folder_.path(), fs::perms(0555));
  EXPECT_EQ(error_of_set("2"), EACCES);
  fs::permissions(folder_.path(), fs::perms(0755));
  EXPECT_EQ(Open()->Get("key"), "value");
}

TEST_F(StoreInPlaceTest, AFileThatAnotherProcessPutThereIsTheOneThatIsWritten) {
  test::WriteFile(folder_.File("new"), test::ReadFile(path_));
  fs::permissions(folder_.File("new"), fs::perms(0644));
  fs::rename(folder_.File("new"), path_);
  store_->Set("other", "1");
  EXPECT_EQ(Open()->Get("other"), "1");
  EXPECT_EQ(Open()->Get("key"), "value");
}

// Whoever may read the file may lock it as well.
TEST_F(StoreInPlaceTest, ALockOnTheFileHoldsNobodyUp) {
  for (const int operation : {LOCK_SH, LOCK_EX}) {
    const int file = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(file, operation), 0);
    const std::string value = std::to_string(operation);
    store_->Set("key", value);
    EXPECT_EQ(store_->Get("key"), value);
    const int other = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(other, operation | LOCK_NB), 0);
    EXPECT_EQ(Open()->Get("key"), value);
    close(other);
    close(file);
  }
}

TEST_F(StoreInPlaceTest, AFileThatCannotBeLockedIsReplaced) {
  EXPECT_EQ(SetWhileFailing({SYS_flock}, "2"), "2");
  EXPECT_NE(Status().st_ino, file_);
}

TEST_F(StoreInPlaceTest, AReaderWithoutTheLockNeverSeesAPart) {
  const auto read_until_done = [&] {
    const auto store = Open();
    for (std::string value; value != "done"; value = store->Get("key")) {
      if (value.find_first_not_of(value.substr(0, 1)) != std::string::npos || fs::exists(path_ + ".broken")) {
        return 1;
      }
    }
    return 0;
  };
  store_->Set("key", std::string(400, 'a'));
  test::Forked one(read_until_done);
  test::Forked two(read_until_done);
  for (int i = 0; i < 300; ++i) {
    store_->Set("key", std::string(400, static_cast<char>('a' + i % 2)));
  }
  store_->Set("key", "done");
  EXPECT_EQ(one.Wait(), 0);
  EXPECT_EQ(two.Wait(), 0);
  EXPECT_THAT(FilesInFolder(), ElementsAre("store"));
}

}  // namespace
}  // namespace orbamira::store
