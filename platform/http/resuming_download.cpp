#include <curl/curl.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <optional>
#include <random>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/exception.h"
#include "platform/http/body_file.h"
#include "platform/http/content_range.h"
#include "platform/http/download_policy.h"
#include "platform/http/http_only.h"
#include "platform/http/http_transfer.h"
#include "platform/http/progress_throttle.h"
#include "platform/http/shown_link.h"
#include "platform/http/size_limit.h"

namespace orbamira {
namespace {

using DownloadFailure = exception::Exception<exception::kDownloadFailure>;
using std::chrono::milliseconds;

constexpr std::int64_t kProgressThatRenews = 1024L * 1024;
// The beginning of an error page is kept to help find the cause.
constexpr std::int64_t kErrorBodyLimit = 64L * 1024;

constexpr long kOk = 200;
constexpr long kPartialContent = 206;
constexpr long kRangeNotSatisfiable = 416;
constexpr long kTooManyRequests = 429;
constexpr long kServerErrors = 500;

// The headers of the response that is arriving; after redirects, of the last one.
class Answer {
 public:
  explicit Answer(CURL* curl) : curl_(curl) {}

  [[nodiscard]] long Status() const {
    long status = 0;
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
    return status;
  }

  [[nodiscard]] std::optional<std::int64_t> Length() const {
    curl_off_t length = -1;
    curl_easy_getinfo(curl_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    return length >= 0 ? std::optional<std::int64_t>(length) : std::nullopt;
  }

  [[nodiscard]] std::string Header(const char* name) const {
    curl_header* header = nullptr;
    return curl_easy_header(curl_, name, 0, CURLH_HEADER, -1, &header) == CURLHE_OK ? header->value : "";
  }

  // A weak tag does not promise the same bytes, so it does not help here.
  [[nodiscard]] std::string StrongTag() const {
    std::string tag = Header("ETag");
    return tag.starts_with("W/") ? "" : tag;
  }

  // Tells later whether the body is still the same; empty when the server sends nothing that does.
  [[nodiscard]] std::string Validator() const {
    std::string tag = StrongTag();
    return tag.empty() ? Header("Last-Modified") : tag;
  }

 private:
  CURL* curl_;
};

// The lower of the two limits on a body.
SizeLimit LimitOf(const DownloadPolicy& policy) {
  SizeLimit limit = SizeLimitFromSettings();
  if (policy.size && *policy.size < limit.bytes) {
    return {*policy.size, "its size in the reply"};
  }
  return limit;
}

std::string ReasonOf(const cpr::Error& error) {
  return error.message.empty() ? std::to_string(error.code) : error.message;
}

// One run of DownloadToFile: attempts until the body is complete or there is no point in trying again.
class Run {
 public:
  Run(const DownloadPolicy& policy, cpr::Session& session, std::string link, std::ofstream& file,
      const std::function<void(long, long)>* progress)
      : policy_(policy),
        session_(session),
        answer_(session.GetCurlHolder()->handle),
        link_(std::move(link)),
        limit_(OnDisk([&policy] { return LimitOf(policy); })),
        body_(OnDisk([&file] { return BodyFile(file); })),
        progress_(progress),
        random_(std::random_device()()) {}

  int ToTheEnd() {
    int failed = 0;
    while (true) {
      Attempt();
      switch (outcome_) {
        case Outcome::kComplete:
          OnDisk([this] { body_.Sync(); });
          progress_.ReportLast(received_);
          return static_cast<int>(kOk);
        case Outcome::kOtherStatus:
          OnDisk([this] { body_.Flush(); });
          return static_cast<int>(answer_.Status());
        case Outcome::kFailed:
          break;
      }
      if (!begun_) {
        throw DownloadFailure(ShownLink(link_) + ": " + reason_, __FILE_NAME__, __LINE__);
      }
      if (received_ >= furthest_ + kProgressThatRenews) {
        furthest_ = received_;
        failed = 0;
      }
      if (++failed > policy_.resumes) {
        throw DownloadFailure(ShownLink(link_) + ": " + reason_ + "; got " + Got() + ", resumed " +
                                  std::to_string(policy_.resumes) + " times without progress",
                              __FILE_NAME__, __LINE__);
      }
      policy_.wait(WaitBefore(failed));
    }
  }

 private:
  enum class Outcome { kComplete, kOtherStatus, kFailed };
  // What to do with the body of a response.
  enum class Use { kUndecided, kAppend, kErrorPage, kDrop, kNothingLeft };

  void Attempt() {
    asked_for_rest_ = received_ > 0 && !validator_.empty();
    session_.SetHeader(
        asked_for_rest_ ? cpr::Header{{"Range", "bytes=" + std::to_string(received_) + "-"}, {"If-Range", validator_}}
                        : cpr::Header{});
    use_ = Use::kUndecided;
    part_end_.reset();
    reason_.clear();
    const cpr::Response response =
        Fetch(session_, policy_.limits, [this](std::string_view bytes) { return Take(bytes); });
    if (use_ == Use::kUndecided && (!response.error || answer_.Status() == kOk)) {
      Decide();  // the body is empty, or none of it arrived
    }
    Conclude(response.error);
  }

  void Conclude(const cpr::Error& error) {
    // We end the transfer of a useless body ourselves, so its error means nothing.
    if (reason_.empty() && (use_ == Use::kUndecided || use_ == Use::kAppend)) {
      if (error) {
        reason_ = ReasonOf(error);
      } else if (total_ ? received_ != *total_ : part_end_ && received_ != *part_end_) {
        reason_ = "the server sent less than the rest of the file";
      } else if (part_end_ && !total_) {
        reason_ = "the server does not say how long the file is";
      }
    }
    if (!reason_.empty()) {
      outcome_ = Outcome::kFailed;
    } else {
      outcome_ = use_ == Use::kAppend || use_ == Use::kNothingLeft ? Outcome::kComplete : Outcome::kOtherStatus;
    }
  }

  // Decides by the response's headers, before the first byte of the body is used.
  void Decide() {
    const long status = answer_.Status();
    if (status == kOk) {
      Begin();
    } else if (!begun_) {
      use_ = Use::kErrorPage;
    } else if (status == kPartialContent && asked_for_rest_) {
      Continue();
    } else if (status == kRangeNotSatisfiable && asked_for_rest_ && !total_ &&
               answer_.Header("Content-Range") == "bytes */" + std::to_string(received_)) {
      use_ = Use::kNothingLeft;
    } else if (status == kRangeNotSatisfiable || status == kTooManyRequests || status >= kServerErrors) {
      GiveUpAttempt("the server answered " + std::to_string(status) + " when asked for the rest");
      // There is no such rest, so the file on the server has changed.
      if (status == kRangeNotSatisfiable) {
        validator_.clear();
      }
    } else {
      use_ = Use::kDrop;
    }
  }

  // Starts with the first byte of the body, for the first time or again.
  void Begin() {
    if (received_ > 0) {
      OnDisk([this] { body_.StartOver(); });
    }
    begun_ = true;
    received_ = 0;
    total_ = answer_.Length();
    OnDisk([this] {
      ExpectWithin(limit_, total_.value_or(0));
      body_.ExpectRoomFor(total_.value_or(0));
    });
    validator_ = answer_.Validator();
    use_ = Use::kAppend;
  }

  // Goes on with the rest of the body, if it really is the rest of the same body.
  void Continue() {
    const std::optional<ContentRange> range = ParseContentRange(answer_.Header("Content-Range"));
    const std::string tag = answer_.StrongTag();
    const bool same_file = (!range || !range->size || !total_ || *range->size == *total_) &&
                           (tag.empty() || !validator_.starts_with('"') || tag == validator_);
    if (range && range->first == received_ && same_file) {
      total_ = total_ ? total_ : range->size;
      part_end_ = range->last + 1;
      use_ = Use::kAppend;
      return;
    }
    GiveUpAttempt("the server sent another part than the rest of the file");
    validator_.clear();  // it cannot be trusted with parts
  }

  void GiveUpAttempt(const std::string& reason) {
    reason_ = reason;
    use_ = Use::kDrop;
  }

  // False ends the transfer.
  bool Take(std::string_view bytes) {
    if (use_ == Use::kUndecided) {
      Decide();
    }
    switch (use_) {
      case Use::kAppend:
        return Append(bytes);
      case Use::kErrorPage:
        return AppendToErrorPage(bytes);
      case Use::kUndecided:
      case Use::kDrop:
      case Use::kNothingLeft:
        break;
    }
    return false;
  }

  bool Append(std::string_view bytes) {
    // The end of the part, or else of the whole.
    const std::optional<std::int64_t> end = part_end_ ? part_end_ : total_;
    if (end && received_ + static_cast<std::int64_t>(bytes.size()) > *end) {
      reason_ = "the server sent more than the rest of the file";
      validator_.clear();
      return false;
    }
    OnDisk([&] { WriteWithinLimit(bytes); });
    received_ += static_cast<std::int64_t>(bytes.size());
    progress_.Report(received_, total_.value_or(0));
    return true;
  }

  void WriteWithinLimit(std::string_view bytes) {
    try {
      ExpectWithin(limit_, received_ + static_cast<std::int64_t>(bytes.size()));
    } catch (const std::system_error&) {
      body_.StartOver();  // others need the room
      throw;
    }
    body_.Write(bytes);
  }

  bool AppendToErrorPage(std::string_view bytes) {
    bytes = bytes.substr(0, static_cast<std::size_t>(kErrorBodyLimit - error_page_));
    OnDisk([&] { body_.Write(bytes); });
    error_page_ += static_cast<std::int64_t>(bytes.size());
    return error_page_ < kErrorBodyLimit;
  }

  // Tells a failure of the disk apart from an exception of the progress function.
  template <typename Action>
  auto OnDisk(Action action) const -> decltype(action()) {
    try {
      return action();
    } catch (const std::system_error& error) {
      throw DownloadFailure(ShownLink(link_) + ": " + error.what(), __FILE_NAME__, __LINE__);
    }
  }

  [[nodiscard]] std::string Got() const {
    return std::to_string(received_) + " of " + (total_ ? std::to_string(*total_) : "unknown") + " bytes";
  }

  milliseconds WaitBefore(int resume) {
    std::uniform_real_distribution<double> part(0.75, 1.25);
    const double doubled = std::ldexp(static_cast<double>(policy_.first_wait.count()), resume - 1);
    return milliseconds(static_cast<milliseconds::rep>(doubled * part(random_)));
  }

  const DownloadPolicy& policy_;
  cpr::Session& session_;
  Answer answer_;
  std::string link_;
  SizeLimit limit_;
  BodyFile body_;
  ProgressThrottle progress_;
  std::minstd_rand random_;

  // The body so far.
  bool begun_ = false;  // a 200 has arrived
  std::int64_t received_ = 0;
  std::int64_t furthest_ = 0;
  std::optional<std::int64_t> total_;
  std::string validator_;

  // The current attempt.
  bool asked_for_rest_ = false;
  Use use_ = Use::kUndecided;
  std::optional<std::int64_t> part_end_;  // where the part of a 206 ends in the body
  Outcome outcome_ = Outcome::kFailed;
  std::int64_t error_page_ = 0;
  std::string reason_;  // why it failed
};

class ResumingDownload : public wrapper::DownloadWrapper {
 public:
  explicit ResumingDownload(DownloadPolicy policy) : policy_(std::move(policy)) {
    const NetworkSettings settings = ReadNetworkSettings();
    SetUpForDownloads(session_, settings);
    policy_.limits.rate = settings.download_rate;
  }

  int DownloadToFile(std::ofstream& file) override { return Run(policy_, session_, link_, file, progress_).ToTheEnd(); }

  void SetUrl(const std::string& link) override {
    link_ = link;
    SetHttpUrl(session_, link);
  }

  void SetProgressCallback(std::function<void(long, long)>& progress) override { progress_ = &progress; }

 private:
  DownloadPolicy policy_;
  cpr::Session session_;
  std::string link_;
  const std::function<void(long, long)>* progress_ = nullptr;
};

}  // namespace

std::shared_ptr<wrapper::DownloadWrapper> MakeDownload(const DownloadPolicy& policy) {
  return std::make_shared<ResumingDownload>(policy);
}

}  // namespace orbamira
