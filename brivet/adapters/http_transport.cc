#include "brivet/adapters/http_transport.h"

#include <curl/curl.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "brivet/platform/internal/mutex.h"

namespace brivet {
namespace {

using internal::Mutex;
using internal::MutexLock;

void initializeCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

// One request in flight: owned by the loop while libcurl runs it, and by the
// caller's handle for cancelling.
struct Transfer final : HTTPRequestHandle, std::enable_shared_from_this<Transfer> {
  std::weak_ptr<HTTPTransport::Loop> loop;
  HTTPRequest request;
  HTTPTransport::Completion completion;
  std::size_t maxBytes = 0;
  std::string body;
  bool tooLarge = false;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  char errorText[CURL_ERROR_SIZE] = {};
  std::atomic<bool> finished{false};

  void cancel() override;

  // Runs the completion once, whatever ends the transfer first.
  void finish(Result<HTTPResponse, HTTPTransportError> result) {
    if (finished.exchange(true)) return;
    HTTPTransport::Completion done = std::move(completion);
    completion = nullptr;
    if (done) done(std::move(result));
  }
};

struct HTTPTransport::Loop : std::enable_shared_from_this<HTTPTransport::Loop> {
  explicit Loop(Options o) : options(o) {}
  ~Loop() {
    if (multi != nullptr) curl_multi_cleanup(multi);
  }

  void start() {
    initializeCurlOnce();
    multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, options.maxConnectionsPerHost);
    thread = std::thread([self = shared_from_this()] { self->run(); });
  }

  void stop() {
    {
      MutexLock lock(mu);
      stopping = true;
    }
    curl_multi_wakeup(multi);
    if (thread.get_id() == std::this_thread::get_id()) {
      thread.detach();  // stopped from a completion: the loop ends on its own
    } else if (thread.joinable()) {
      thread.join();
    }
  }

  void submit(std::shared_ptr<Transfer> transfer) {
    {
      MutexLock lock(mu);
      if (stopping) {
        transfer->finish(Failure{HTTPTransportError{HTTPTransportError::Kind::Cancelled, "transport stopped"}});
        return;
      }
      added.push_back(std::move(transfer));
    }
    curl_multi_wakeup(multi);
  }

  void requestCancel(const std::shared_ptr<Transfer>& transfer) {
    {
      MutexLock lock(mu);
      cancelled.push_back(transfer);
    }
    curl_multi_wakeup(multi);
  }

  void run() {
    for (;;) {
      std::deque<std::shared_ptr<Transfer>> toAdd;
      std::deque<std::shared_ptr<Transfer>> toCancel;
      bool stop;
      {
        MutexLock lock(mu);
        toAdd.swap(added);
        toCancel.swap(cancelled);
        stop = stopping;
      }
      for (auto& transfer : toAdd) begin(std::move(transfer));
      for (auto& transfer : toCancel) end(transfer, Failure{HTTPTransportError{HTTPTransportError::Kind::Cancelled,
                                                                               "request cancelled"}});
      if (stop) {
        while (!active.empty()) {
          // A copy: `end` erases the map's entry, which must not own the transfer it is ending.
          const std::shared_ptr<Transfer> transfer = active.begin()->second;
          end(transfer, Failure{HTTPTransportError{HTTPTransportError::Kind::Cancelled, "transport stopped"}});
        }
        return;  // the multi handle is released with the loop, once no thread can wake it

      }
      int running = 0;
      curl_multi_perform(multi, &running);
      int left = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        auto it = active.find(message->easy_handle);
        if (it == active.end()) continue;
        std::shared_ptr<Transfer> transfer = it->second;
        end(transfer, resultOf(*transfer, message->data.result));
      }
      curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
  }

  static std::size_t onData(char* data, std::size_t size, std::size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    const std::size_t bytes = size * count;
    if (transfer->body.size() + bytes > transfer->maxBytes) {
      transfer->tooLarge = true;
      return 0;  // aborts the transfer
    }
    transfer->body.append(data, bytes);
    return bytes;
  }

  void begin(std::shared_ptr<Transfer> transfer) {
    if (transfer->finished.load()) return;  // cancelled before it started
    CURL* easy = curl_easy_init();
    transfer->easy = easy;
    transfer->maxBytes = options.maxResponseBytes;
    const HTTPRequest& r = transfer->request;
    const auto timeout = r.timeout.count() > 0 ? r.timeout : options.requestTimeout;
    curl_easy_setopt(easy, CURLOPT_URL, r.url.c_str());
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options.connectTimeout.count()));
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Loop::onData);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer.get());
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer->errorText);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer.get());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    if (options.maxRedirects > 0) {
      curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
      curl_easy_setopt(easy, CURLOPT_MAXREDIRS, options.maxRedirects);
      curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
      curl_easy_setopt(easy, CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_301 | CURL_REDIR_POST_302));
    }
    transfer->headers = curl_slist_append(transfer->headers, "Accept: application/json");
    if (r.method == HTTPRequest::Method::POST) {
      curl_easy_setopt(easy, CURLOPT_POST, 1L);
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(r.body.size()));
      curl_easy_setopt(easy, CURLOPT_POSTFIELDS, r.body.data());
      const std::string type = "Content-Type: " + (r.contentType.empty() ? std::string("application/x-www-form-urlencoded")
                                                                          : r.contentType);
      transfer->headers = curl_slist_append(transfer->headers, type.c_str());
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer->headers);
    active.emplace(easy, transfer);
    curl_multi_add_handle(multi, easy);
  }

  Result<HTTPResponse, HTTPTransportError> resultOf(Transfer& transfer, CURLcode code) {
    using Kind = HTTPTransportError::Kind;
    if (code == CURLE_OK) {
      HTTPResponse response;
      curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &response.statusCode);
      char* type = nullptr;
      curl_easy_getinfo(transfer.easy, CURLINFO_CONTENT_TYPE, &type);
      if (type != nullptr) response.contentType = type;
      char* location = nullptr;
      curl_easy_getinfo(transfer.easy, CURLINFO_REDIRECT_URL, &location);
      if (location != nullptr) response.location = location;
      // libcurl reads both forms of the header (seconds or a date) into seconds from now; 0 when absent.
      curl_off_t retryAfter = 0;
      if (curl_easy_getinfo(transfer.easy, CURLINFO_RETRY_AFTER, &retryAfter) == CURLE_OK && retryAfter > 0) {
        response.retryAfterSeconds = static_cast<std::int64_t>(retryAfter);
      }
      response.body = std::move(transfer.body);
      return response;
    }
    std::string message = transfer.errorText[0] != '\0' ? transfer.errorText : curl_easy_strerror(code);
    if (transfer.tooLarge) {
      return Failure{HTTPTransportError{Kind::TooLarge, "response larger than " +
                                                            std::to_string(transfer.maxBytes) + " bytes"}};
    }
    switch (code) {
      case CURLE_COULDNT_CONNECT:
      case CURLE_COULDNT_RESOLVE_HOST:
      case CURLE_COULDNT_RESOLVE_PROXY:
        return Failure{HTTPTransportError{Kind::ConnectionFailed, std::move(message)}};
      case CURLE_OPERATION_TIMEDOUT: return Failure{HTTPTransportError{Kind::TimedOut, std::move(message)}};
      case CURLE_GOT_NOTHING:
      case CURLE_RECV_ERROR:
      case CURLE_SEND_ERROR:
      case CURLE_PARTIAL_FILE:
        return Failure{HTTPTransportError{Kind::ConnectionLost, std::move(message)}};
      case CURLE_TOO_MANY_REDIRECTS:
        return Failure{HTTPTransportError{Kind::TooManyRedirects, std::move(message)}};
      case CURLE_URL_MALFORMAT:
      case CURLE_UNSUPPORTED_PROTOCOL:
        return Failure{HTTPTransportError{Kind::BadURL, std::move(message)}};
      default: return Failure{HTTPTransportError{Kind::Other, std::move(message)}};
    }
  }

  // Removes a transfer from libcurl and runs its completion.
  void end(const std::shared_ptr<Transfer>& transfer, Result<HTTPResponse, HTTPTransportError> result) {
    if (transfer->easy != nullptr) {
      curl_multi_remove_handle(multi, transfer->easy);
      active.erase(transfer->easy);
      curl_easy_cleanup(transfer->easy);
      transfer->easy = nullptr;
      curl_slist_free_all(transfer->headers);
      transfer->headers = nullptr;
    }
    transfer->finish(std::move(result));
  }

  const Options options;
  CURLM* multi = nullptr;
  std::thread thread;
  Mutex mu;
  bool stopping BRIVET_GUARDED_BY(mu) = false;
  std::deque<std::shared_ptr<Transfer>> added BRIVET_GUARDED_BY(mu);
  std::deque<std::shared_ptr<Transfer>> cancelled BRIVET_GUARDED_BY(mu);
  std::unordered_map<CURL*, std::shared_ptr<Transfer>> active;  // loop thread only
};

void Transfer::cancel() {
  if (finished.load()) return;
  if (auto owner = loop.lock()) {
    owner->requestCancel(shared_from_this());
  }
}

std::shared_ptr<HTTPTransport> HTTPTransport::create(Options options) {
  auto loop = std::make_shared<Loop>(options);
  loop->start();
  return std::shared_ptr<HTTPTransport>(new HTTPTransport(std::move(loop)));
}

HTTPTransport::~HTTPTransport() { loop_->stop(); }

std::shared_ptr<HTTPRequestHandle> HTTPTransport::send(HTTPRequest request, Completion completion) {
  auto transfer = std::make_shared<Transfer>();
  transfer->loop = loop_;
  transfer->request = std::move(request);
  transfer->completion = std::move(completion);
  loop_->submit(transfer);
  return transfer;
}

std::optional<std::string> HTTPTransport::urlProblem(std::string_view url) {
  initializeCurlOnce();
  CURLU* handle = curl_url();
  if (handle == nullptr) return std::string("cannot read URLs (out of memory)");
  const std::string text(url);
  std::optional<std::string> problem;
  char* scheme = nullptr;
  char* host = nullptr;
  if (text.find_first_of(" \t\r\n") != std::string::npos) {
    problem = "a URL with blanks or line breaks";
  } else if (curl_url_set(handle, CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) {
    problem = "not a URL";
  } else if (curl_url_get(handle, CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK ||
             (std::string_view(scheme) != "http" && std::string_view(scheme) != "https")) {
    problem = "not an http:// or https:// URL";
  } else if (curl_url_get(handle, CURLUPART_HOST, &host, 0) != CURLUE_OK || host[0] == '\0') {
    problem = "a URL without a host";
  }
  curl_free(scheme);
  curl_free(host);
  curl_url_cleanup(handle);
  return problem;
}

std::string HTTPTransport::percentEncode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() * 3);
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    const bool unreserved = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                            c == '-' || c == '.' || c == '_' || c == '~';
    if (unreserved) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

std::string HTTPTransport::formEncode(const std::vector<std::pair<std::string, std::string>>& fields) {
  std::string out;
  for (const auto& [key, value] : fields) {
    if (!out.empty()) out += '&';
    out += percentEncode(key);
    out += '=';
    out += percentEncode(value);
  }
  return out;
}

}  // namespace brivet
