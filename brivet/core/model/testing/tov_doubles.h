// Test doubles for the core model's application side (tests and benchmarks only).
//
// ScriptedHTTPClient records every request and answers it from a canned reply
// (response dictionaries, then success or an error such as
// `httpFailure(status, body)`), or from a responder function: inside the
// request, later from another thread, when the test calls `releaseHeld()`, or
// never (a request that only a cancel ends).
// It counts the cancel blocks the model runs, and separately the requests
// cancelled before they were answered. RecordingLoggingDelegate keeps every
// line it is told. Both are safe to use from any thread.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brivet/core/model/tov_model.h"
#include "brivet/core/model/tov_protocols.h"
#include "brivet/core/model/tov_stream.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/internal/mutex.h"
#include "brivet/platform/json.h"

namespace brivet::testing {

// JSON text as a response would arrive (mutable containers); nil when malformed.
inline Object json(std::string_view text) {
  Result<Object> parsed = parseJSON(text, JSONReadingOptions::MutableContainers | JSONReadingOptions::FragmentsAllowed);
  return parsed.ok() ? parsed.value() : Object();
}

enum class Delivery {
  Synchronous,  // inside the request
  Later,        // from another thread
  Held,         // when the test calls releaseHeld()
  Never,        // a request that hangs (its blocks kept) until it is cancelled
};

struct Reply {
  Reply(std::vector<Object> dictionaries = {}, std::optional<Error> error = std::nullopt,
        std::optional<Delivery> delivery = std::nullopt)
      : dictionaries(std::move(dictionaries)), error(std::move(error)), delivery(delivery) {}

  std::vector<Object> dictionaries;  // progress, in order
  std::optional<Error> error;        // then the completion
  std::optional<Delivery> delivery;  // instead of the client's
};

struct Request {
  std::string method;  // "GET" or "POST"
  std::string url;
  Object parameters;
};

class ScriptedHTTPClient : public TovHTTPClientProtocol {
 public:
  using Delivery = testing::Delivery;

  std::shared_ptr<TovHTTPDataSourceResponseStream> GET(const std::string& url, const Object& parameters) override {
    return respond("GET", url, parameters);
  }
  std::shared_ptr<TovHTTPDataSourceResponseStream> POST(const std::string& url, const Object& parameters) override {
    return respond("POST", url, parameters);
  }
  std::optional<Object> preGETWithPqlPathSets(const Object& pathSets) override {
    internal::MutexLock lock(mu_);
    preGETPathSets_.push_back(pathSets);
    return preGET;
  }

  std::vector<Request> requests() const {
    internal::MutexLock lock(mu_);
    return requests_;
  }
  std::size_t requestCount() const {
    internal::MutexLock lock(mu_);
    return requests_.size();
  }
  std::vector<Object> preGETPathSets() const {
    internal::MutexLock lock(mu_);
    return preGETPathSets_;
  }
  // Answers every held request now, on the calling thread.
  void releaseHeld() {
    std::vector<std::function<void()>> held;
    {
      internal::MutexLock lock(shared_->mu);
      held.swap(shared_->held);
    }
    for (auto& answer : held) answer();
  }
  std::size_t heldCount() const {
    internal::MutexLock lock(shared_->mu);
    return shared_->held.size();
  }
  // Cancel blocks run (after the end of a request too), and requests cancelled before their answer.
  int cancels() const { return shared_->cancels.load(); }
  int aborted() const { return shared_->aborted.load(); }

  // Configure before requests start.
  Delivery delivery = Delivery::Synchronous;
  Reply reply;
  std::function<Reply(const Request&)> responder;
  std::optional<Object> preGET;

 private:
  // What request streams share with the client; they may outlive it.
  struct Shared {
    std::atomic<int> cancels{0};
    std::atomic<int> aborted{0};
    internal::Mutex mu;
    std::vector<std::function<void()>> held BRIVET_GUARDED_BY(mu);
  };
  // One request's fate: answered or cancelled, whichever comes first. A hung
  // request keeps its blocks here, as a real client keeps its completion
  // handler, until it is cancelled.
  struct Fate {
    internal::Mutex mu;
    bool answered BRIVET_GUARDED_BY(mu) = false;
    bool cancelled BRIVET_GUARDED_BY(mu) = false;
    std::function<void()> hung BRIVET_GUARDED_BY(mu);
    bool answer() {
      internal::MutexLock lock(mu);
      if (cancelled) return false;
      answered = true;
      return true;
    }
    void hang(std::function<void()> blocks) {
      internal::MutexLock lock(mu);
      if (!cancelled) hung = std::move(blocks);
    }
    bool cancel() {  // whether the request was still unanswered
      std::function<void()> released;
      internal::MutexLock lock(mu);
      const bool open = !answered && !cancelled;
      cancelled = true;
      released.swap(hung);
      return open;
    }
  };

  std::shared_ptr<TovHTTPDataSourceResponseStream> respond(std::string method, const std::string& url,
                                                           const Object& parameters) {
    Request request{std::move(method), url, parameters};
    {
      internal::MutexLock lock(mu_);
      requests_.push_back(request);
    }
    const Reply answer = responder ? responder(request) : reply;
    auto fate = std::make_shared<Fate>();
    const Delivery how = answer.delivery.value_or(delivery);
    return std::make_shared<TovHTTPDataSourceResponseStream>(
        [shared = shared_, network = network_, fate, answer, how](ProgressBlock progress, CompletionBlock completion) {
          auto deliver = [fate, answer, progress, completion] {
            if (!fate->answer()) return;
            for (const Object& dictionary : answer.dictionaries) progress(dictionary);
            completion(answer.error);
          };
          if (how == Delivery::Synchronous) {
            deliver();
          } else if (how == Delivery::Later) {
            network->async(deliver);
          } else if (how == Delivery::Held) {
            internal::MutexLock lock(shared->mu);
            shared->held.push_back(deliver);
          } else {
            fate->hang(deliver);
          }
        },
        [fate, shared = shared_] {
          ++shared->cancels;
          if (fate->cancel()) ++shared->aborted;
        });
  }

  mutable internal::Mutex mu_;
  std::vector<Request> requests_ BRIVET_GUARDED_BY(mu_);
  std::vector<Object> preGETPathSets_ BRIVET_GUARDED_BY(mu_);
  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
  std::shared_ptr<DispatchQueue> network_ = DispatchQueue::serial("test.network");
};

class RecordingLoggingDelegate : public TovLoggingDelegate {
 public:
  bool enableLoggingForBrivet(TovModel& /*model*/) override { return enabled; }
  void logError(TovModel& /*model*/, const std::string& message) override { record(kError, message); }
  std::optional<bool> enableExNetworkLoggingForBrivet(TovModel& /*model*/) override { return network; }
  void logInfo(TovModel& /*model*/, const std::string& message) override { record(kInfo, message); }
  void logDebug(TovModel& /*model*/, const std::string& message) override { record(kDebug, message); }

  std::vector<std::string> errors() const { return read(kError); }
  std::vector<std::string> infos() const { return read(kInfo); }
  std::vector<std::string> debugs() const { return read(kDebug); }

  std::atomic<bool> enabled{true};
  std::optional<bool> network;  // empty: the optional switch is not implemented

 private:
  enum Level { kError, kInfo, kDebug };
  void record(Level level, const std::string& message) {
    internal::MutexLock lock(mu_);
    lines_[level].push_back(message);
  }
  std::vector<std::string> read(Level level) const {
    internal::MutexLock lock(mu_);
    return lines_[level];
  }

  mutable internal::Mutex mu_;
  std::array<std::vector<std::string>, 3> lines_ BRIVET_GUARDED_BY(mu_);
};

}  // namespace brivet::testing
