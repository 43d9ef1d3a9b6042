#include "HttpTransfer.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

#include "DownloadRetries.h"
#include "GzipDecoder.h"
#include "LibCurl.h"
#include "RequestHeaders.h"
#include "ServerURL.h"
#include "SigpipeGuard.h"

namespace AgentUtils {
namespace {

constexpr long kConnectSeconds = 30;
constexpr long kStallSeconds = 60;
constexpr std::size_t kMostHeaderBytes = std::size_t{256} << 10;
constexpr const char* kUserAgent = "VarnScriptRepository/" VARN_VERSION;
// The body of an error page or a redirect is of no use; a short one is read to its end, so that the
// connection can serve the next download.
constexpr std::size_t kMostIgnoredBytes = std::size_t{64} << 10;

struct FreeHandle {
  void operator()(CURL* handle) const { libCurl().easy_cleanup(handle); }
};
using Handle = std::unique_ptr<CURL, FreeHandle>;

struct FreeHeaders {
  void operator()(curl_slist* headers) const { libCurl().slist_free_all(headers); }
};
using Headers = std::unique_ptr<curl_slist, FreeHeaders>;

/// Idle handles. Each keeps the connections that it has made, so the downloads of one request share
/// one connection although each has a downloader of its own.
class IdleHandles {
 public:
  static IdleHandles& shared() {
    // Never destroyed: a download may be under way while static objects go.
    static IdleHandles& handles = *new IdleHandles;
    return handles;
  }

  Handle take() {
    const std::lock_guard lock(mutex_);
    leaveToParent();
    if (idle_.empty()) return Handle(libCurl().easy_init());
    Handle handle = std::move(idle_.back());
    idle_.pop_back();
    libCurl().easy_reset(handle.get());
    return handle;
  }

  void giveBack(Handle handle) noexcept {
    // A handle that is not kept closes its connections, which may write to them.
    const SigpipeGuard guard;
    libCurl().easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    try {
      const std::lock_guard lock(mutex_);
      if (idle_.size() < kMostIdle) idle_.push_back(std::move(handle));
    } catch (...) {
      // Out of memory: the handle is freed.
    }
    handle.reset();
  }

 private:
  static constexpr std::size_t kMostIdle = 4;

  IdleHandles() { libCurl().global_init(CURL_GLOBAL_DEFAULT); }

  /// After a fork the connections are the parent's: two processes would read each other's answers.
  /// They are left alone, neither used nor closed.
  void leaveToParent() {
    if (process_ == ::getpid()) return;
    for (Handle& handle : idle_) static_cast<void>(handle.release());
    idle_.clear();
    process_ = ::getpid();
  }

  std::mutex mutex_;
  std::vector<Handle> idle_;
  pid_t process_ = ::getpid();
};

std::string_view trimmedBlanks(std::string_view text) {
  const auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  });
  return lower;
}

/// Whether curl's words for a connection that broke off say that TLS is why, a certificate that the
/// server does not take among it, and not the way to the server.
bool isRefusedByTLS(std::string_view words) {
  if (words.find("fatal alert") != words.npos) return true;
  return words.find("SSL routines") != words.npos && words.find("unexpected eof") == words.npos;
}

/// A weak tag and a strong one of the same text are about the same file.
std::string_view withoutWeakness(std::string_view entityTag) {
  if (entityTag.starts_with("W/")) entityTag.remove_prefix(2);
  return entityTag;
}

/// One exchange. curl calls back into it; what these calls throw is kept until curl has returned.
class Exchange {
 public:
  Exchange(const Validators& known, const AgentSettings& settings, DownloadTarget& target,
           DownloadPace& pace)
      : known_(known),
        settings_(settings),
        target_(target),
        pace_(pace),
        handle_(IdleHandles::shared().take()) {
    if (!handle_) throw DownloadFailure("out of memory");
  }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;
  ~Exchange() {
    // The texts that were set point into this object.
    libCurl().easy_reset(handle_.get());
    IdleHandles::shared().giveBack(std::move(handle_));
  }

  Reply perform(const std::string& url) {
    setUp(url);
    CURLcode result = CURLE_OK;
    {
      const SigpipeGuard guard;
      result = libCurl().easy_perform(handle_.get());
    }
    // Our own reason first: curl knows of it only that a write was refused.
    if (thrown_) std::rethrow_exception(thrown_);
    if (result == CURLE_OUT_OF_MEMORY) throw DownloadFailure("out of memory");
    if (result != CURLE_OK) fail(result);
    return judge();
  }

 private:
  [[noreturn]] void fail(CURLcode result) const {
    if (mayPass(result)) throw TransientFailure(wordsFor(result));
    throw DownloadFailure(wordsFor(result));
  }

  /// Whether the failure is one of the way to the server, and so another try may go better.
  [[nodiscard]] bool mayPass(CURLcode result) const {
    long proxyStatus = 0;
    libCurl().easy_getinfo(handle_.get(), CURLINFO_HTTP_CONNECTCODE, &proxyStatus);
    if (proxyStatus >= 300) return isTransientStatus(proxyStatus);
    switch (result) {
      case CURLE_COULDNT_RESOLVE_PROXY:
      case CURLE_COULDNT_RESOLVE_HOST:
      case CURLE_COULDNT_CONNECT:
      case CURLE_OPERATION_TIMEDOUT:
      case CURLE_PARTIAL_FILE:
      case CURLE_GOT_NOTHING:
      case CURLE_HTTP2:
      case CURLE_HTTP2_STREAM:
        return true;
      case CURLE_SSL_CONNECT_ERROR:
      case CURLE_SEND_ERROR:
      case CURLE_RECV_ERROR:
        return !isRefusedByTLS(error_);
      default:
        return false;
    }
  }

  /// curl's words for a failure. They may quote a URL or a proxy with its password; then its
  /// general ones have to do.
  [[nodiscard]] const char* wordsFor(CURLcode result) const {
    const std::string_view words = error_;
    const bool mayQuote =
        words.find_first_of("@?") != words.npos || words.find("://") != words.npos;
    return words.empty() || mayQuote ? libCurl().easy_strerror(result) : error_;
  }

  template <class Value>
  void set(CURLoption option, Value value) {
    if (libCurl().easy_setopt(handle_.get(), option, value) != CURLE_OK) {
      throw DownloadFailure("the transfer can't be set up");
    }
  }

  void setUp(const std::string& url) {
    set(CURLOPT_ERRORBUFFER, error_);
    set(CURLOPT_URL, url.c_str());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    // A redirect is not to choose what this client logs in with.
    set(CURLOPT_DISALLOW_USERNAME_IN_URL, 1L);
    setUpUserAgent();
    // No signal handler of curl's own: this is a guest in the process.
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_FOLLOWLOCATION, 0L);
    // With a limit, if only the largest one, an announced length that is no number is a failure.
    set(CURLOPT_MAXFILESIZE_LARGE, std::numeric_limits<curl_off_t>::max());
    set(CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
    set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    set(CURLOPT_LOW_SPEED_TIME, kStallSeconds);
    // Decoded here and not by curl, which does not see that a compressed body is cut short.
    set(CURLOPT_ACCEPT_ENCODING, "gzip");
    set(CURLOPT_HTTP_CONTENT_DECODING, 0L);
    const bool isOwnServer = isSameServer(url, settings_.serverURL);
    setUpHeaders(isOwnServer);
    set(CURLOPT_WRITEFUNCTION, &onBody);
    set(CURLOPT_WRITEDATA, this);
    set(CURLOPT_HEADERFUNCTION, &onHeader);
    set(CURLOPT_HEADERDATA, this);
    set(CURLOPT_VERBOSE, 1L);
    set(CURLOPT_DEBUGFUNCTION, &onRemark);
    set(CURLOPT_DEBUGDATA, this);
    setUpTLS();
    if (isOwnServer) setUpCredentials();
    if (!settings_.proxy.empty()) set(CURLOPT_PROXY, settings_.proxy.c_str());
    set(CURLOPT_XFERINFOFUNCTION, &onProgress);
    set(CURLOPT_XFERINFODATA, this);
    set(CURLOPT_NOPROGRESS, 0L);
  }

  void setUpUserAgent() {
    const std::string& given = settings_.userAgent;
    requireSendable("User-Agent: " + (given.empty() ? kUserAgent : given));
    set(CURLOPT_USERAGENT, given.empty() ? kUserAgent : given.c_str());
  }

  void setUpHeaders(bool isOwnServer) {
    const std::string condition = conditionalHeader(known_);
    if (!condition.empty()) addHeader(condition);
    if (isOwnServer) {
      for (const std::string& header : settings_.requestHeaders) {
        requireSendable(header);
        addHeader(header);
      }
    }
    if (!headers_) return;
    set(CURLOPT_HTTPHEADER, headers_.get());
    // A proxy that only passes the connection on does not get them.
    set(CURLOPT_HEADEROPT, static_cast<long>(CURLHEADER_SEPARATE));
  }

  void addHeader(const std::string& header) {
    curl_slist* const longer = libCurl().slist_append(headers_.get(), header.c_str());
    if (longer == nullptr) throw DownloadFailure("out of memory");
    static_cast<void>(headers_.release());
    headers_.reset(longer);
  }

  static void requireSendable(const std::string& header) {
    if (const auto complaint = complaintAboutRequestHeader(header)) {
      throw DownloadFailure("a header can't be sent: " + *complaint);
    }
  }

  /// What shows a server who this computer is. A redirect's server is not to learn that.
  void setUpCredentials() {
    if (!settings_.clientCert.empty()) set(CURLOPT_SSLCERT, settings_.clientCert.c_str());
    if (!settings_.clientKey.empty()) set(CURLOPT_SSLKEY, settings_.clientKey.c_str());
    if (settings_.netrcFile.empty()) return;
    set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_OPTIONAL));
    set(CURLOPT_NETRC_FILE, settings_.netrcFile.c_str());
  }

  void setUpTLS() {
    set(CURLOPT_SSL_VERIFYPEER, 1L);
    set(CURLOPT_SSL_VERIFYHOST, 2L);
    set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    if (!settings_.caFile.empty()) {
      set(CURLOPT_CAINFO, settings_.caFile.c_str());
      // Those authorities alone, not the system's directory of them as well.
      set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    }
  }

  /// Runs one of curl's calls into this object; an exception ends the transfer and is kept.
  template <class Step>
  bool step(Step&& take) noexcept {
    try {
      take();
      return true;
    } catch (...) {
      thrown_ = std::current_exception();
      return false;
    }
  }

  static std::size_t onHeader(char* bytes, std::size_t, std::size_t count, void* exchange) {
    auto& self = *static_cast<Exchange*>(exchange);
    return self.step([&] { self.takeHeader(std::string_view(bytes, count)); }) ? count : 0;
  }

  static std::size_t onBody(char* bytes, std::size_t, std::size_t count, void* exchange) {
    auto& self = *static_cast<Exchange*>(exchange);
    return self.step([&] { self.takeBody(bytes, count); }) ? count : 0;
  }

  /// Of curl's remarks only one counts: it drops bytes beyond the announced length, and says so
  /// nowhere else.
  static int onRemark(CURL*, curl_infotype kind, char* text, std::size_t size, void* exchange) {
    if (kind == CURLINFO_TEXT && std::string_view(text, size).starts_with("Excess found")) {
      static_cast<Exchange*>(exchange)->isTooLong_ = true;
    }
    return 0;
  }

  /// Called about once a second also while nothing comes.
  static int onProgress(void* exchange, curl_off_t total, curl_off_t now, curl_off_t, curl_off_t) {
    auto& self = *static_cast<Exchange*>(exchange);
    const auto number = [](curl_off_t bytes) {
      return static_cast<std::uint64_t>(std::max<curl_off_t>(bytes, 0));
    };
    const bool goesOn = self.step([&] {
      self.pace_.check(DownloadPace::Clock::now());
      const auto& report = self.settings_.onDownloadProgress;
      if (report) report(number(now), number(total));
    });
    return goesOn ? 0 : 1;
  }

  void takeHeader(std::string_view line) {
    pace_.receive(line.size());
    headerBytes_ += line.size();
    if (headerBytes_ > kMostHeaderBytes)
      throw DownloadFailure("the response's headers are too long");
    // A response of its own follows an interim one.
    if (line.starts_with("HTTP/")) {
      encoding_.clear();
      validators_ = {};
      retryAfter_.clear();
      date_.clear();
      isHeadWhole_ = false;
    }
    if (line == "\r\n" || line == "\n") isHeadWhole_ = true;
    const std::size_t colon = line.find(':');
    if (colon == line.npos) return;
    const std::string name = lowerCase(line.substr(0, colon));
    const std::string_view value = trimmedBlanks(line.substr(colon + 1));
    if (name == "content-encoding") encoding_ = lowerCase(value);
    if (name == "retry-after") retryAfter_ = value;
    if (name == "date") date_ = value;
    validators_.take(name, value);
  }

  void takeBody(const char* bytes, std::size_t count) {
    pace_.receive(count);
    if (status() != 200) {
      ignoredBytes_ += count;
      // Enough is known; `judge` can't be reached from here.
      if (ignoredBytes_ > kMostIgnoredBytes) failWithStatus();
      return;
    }
    target_.receive(count);
    if (encoding_.empty() || encoding_ == "identity") {
      target_.write(bytes, count);
      return;
    }
    if (encoding_ != "gzip" && encoding_ != "x-gzip") {
      throw DownloadFailure("the body's encoding is not known: " + encoding_);
    }
    if (!decoder_) {
      decoder_ = std::make_unique<GzipDecoder>(
          [this](const char* decoded, std::size_t length) { target_.write(decoded, length); });
    }
    decoder_->write(bytes, count);
  }

  Reply judge() {
    // To curl, the connection's end is the headers' end as well.
    if (!isHeadWhole_) throw TransientFailure("the response's headers are cut short");
    const char* redirect = nullptr;
    libCurl().easy_getinfo(handle_.get(), CURLINFO_REDIRECT_URL, &redirect);
    if (redirect != nullptr) return {Reply::Kind::redirect, redirect};
    if (status() == 304 && !known_.isEmpty()) {
      return {isAboutKnown() ? Reply::Kind::notModified : Reply::Kind::refused};
    }
    // Not for a GET, but there are servers that answer so.
    if (status() == 412 && !known_.isEmpty()) return {Reply::Kind::refused};
    if (status() != 200) failWithStatus();
    finishBody();
    return {Reply::Kind::body, {}, validators_.lasting()};
  }

  /// Whether the answer speaks for the validators that were asked with. A server that compares
  /// dates takes every older file than the known one for the same, so a date must come back as it
  /// was sent; a tag is never taken for another one, and need not.
  bool isAboutKnown() const {
    const Validators sent = validators_.sent();
    if (known_.entityTag.empty()) return sent.lastModified == known_.lastModified;
    const auto agree = [](std::string_view a, std::string_view b) {
      return a.empty() || b.empty() || a == b;
    };
    return agree(withoutWeakness(sent.entityTag), withoutWeakness(known_.entityTag)) &&
           agree(sent.lastModified, known_.lastModified);
  }

  void finishBody() {
    if (isTooLong_) throw DownloadFailure("the body is longer than announced");
    if (decoder_) {
      decoder_->finish();
    } else if (encoding_ == "gzip" || encoding_ == "x-gzip") {
      throw TransientFailure("the compressed body is cut short");
    }
  }

  long status() const {
    long code = 0;
    libCurl().easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &code);
    return code;
  }

  [[noreturn]] void failWithStatus() const {
    const std::string text = "the server answered with status " + std::to_string(status());
    if (isTransientStatus(status())) throw TransientFailure(text, askedPause(retryAfter_, date_));
    throw DownloadFailure(text);
  }

  const Validators& known_;
  const AgentSettings& settings_;
  DownloadTarget& target_;
  DownloadPace& pace_;
  Headers headers_;
  Handle handle_;
  std::unique_ptr<GzipDecoder> decoder_;
  std::string encoding_;  ///< of the body, in lower case; empty when it has none
  AnswerValidators validators_;
  std::string retryAfter_;
  std::string date_;
  bool isHeadWhole_ = false;  ///< whether the blank line after the headers has come
  std::size_t headerBytes_ = 0;
  std::size_t ignoredBytes_ = 0;
  bool isTooLong_ = false;
  std::exception_ptr thrown_;
  char error_[CURL_ERROR_SIZE] = "";
};

}  // namespace

bool startTransfers() {
  try {
    IdleHandles::shared();
    return true;
  } catch (const DownloadFailure&) {
    return false;
  }
}

Reply transfer(const std::string& url, const Validators& known, const AgentSettings& settings,
               DownloadTarget& target, DownloadPace& pace) {
  return Exchange(known, settings, target, pace).perform(url);
}

}  // namespace AgentUtils
