// Test doubles for the legacy model: a scripted data source and recording delegates (tests only).
//
// ScriptedDataSource records every parameter dictionary it receives and answers from a canned response (or a
// responder function), synchronously inside the request or later from another thread. The recording delegates
// keep everything they are told. All of them are safe to use from any thread; read their records after waiting
// for the completions through the main queue.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "brivet/legacy/model.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/internal/mutex.h"
#include "brivet/platform/json.h"

namespace brivet::testing {

// Parses JSON text with mutable containers, as a data source's response would arrive.
inline Object json(std::string_view text) {
  Result<Object> parsed = parseJSON(text, JSONReadingOptions::MutableContainers | JSONReadingOptions::FragmentsAllowed);
  return parsed.ok() ? parsed.value() : Object();
}

// A subscription object a data source hands back.
class CountingOperation final : public CustomObject, public BrivetOperation {
 public:
  void cancel() override { ++cancels; }
  std::string_view className() const override { return "CountingOperation"; }
  void* castTo(CustomTypeId type) override { return castAs<CountingOperation, BrivetOperation>(this, type); }
  int cancels = 0;
};

struct ScriptedResponse {
  Object results;
  Object extra;
  std::optional<Error> error;
};

class ScriptedDataSource : public BrivetDataSource {
 public:
  // Synchronous: inside the request; Later: from another thread; Held: when the test calls `releaseHeld()`.
  enum class Delivery { Synchronous, Later, Held };

  bool enableCacheExpiration(BrivetModel& /*model*/) override { return expiration; }

  Object getWithParams(BrivetModel& /*model*/, const Object& params, const UUID& uuid,
                       BrivetDataSourceCompletion completion) override {
    return answer(params, uuid, std::move(completion), /*call=*/false);
  }
  Object callWithParams(BrivetModel& /*model*/, const Object& params, const UUID& uuid,
                        BrivetDataSourceCompletion completion) override {
    return answer(params, uuid, std::move(completion), /*call=*/true);
  }
  std::optional<Object> preGetWithKeyPaths(BrivetModel& /*model*/, const std::vector<std::string>& keyPaths) override {
    internal::MutexLock lock(mu_);
    preGetKeyPaths_.push_back(keyPaths);
    return preGet;
  }
  std::optional<Object> preCallWithKeyPaths(BrivetModel& /*model*/,
                                            const std::optional<std::vector<std::string>>& /*keyPaths*/) override {
    return preCall;
  }

  std::vector<Object> getParams() const {
    internal::MutexLock lock(mu_);
    return getParams_;
  }
  std::vector<Object> callParams() const {
    internal::MutexLock lock(mu_);
    return callParams_;
  }
  // Answers every held request now, on the calling thread.
  void releaseHeld() {
    std::vector<std::function<void()>> held;
    {
      internal::MutexLock lock(mu_);
      held.swap(held_);
    }
    for (auto& answer : held) answer();
  }
  std::vector<std::vector<std::string>> preGetKeyPaths() const {
    internal::MutexLock lock(mu_);
    return preGetKeyPaths_;
  }

  // Configure before the requests start.
  bool expiration = false;
  Delivery delivery = Delivery::Synchronous;
  ScriptedResponse response;  // the answer to every request, unless a responder
  std::function<ScriptedResponse(const Object& params)> responder;
  std::optional<Object> preGet;
  std::optional<Object> preCall;
  Object subscription;  // returned from every request

 private:
  Object answer(const Object& params, const UUID& /*uuid*/, BrivetDataSourceCompletion completion, bool call) {
    {
      internal::MutexLock lock(mu_);
      (call ? callParams_ : getParams_).push_back(params);
    }
    ScriptedResponse reply = responder ? responder(params) : response;
    if (delivery == Delivery::Synchronous) {
      completion(reply.results, reply.extra, reply.error);
    } else if (delivery == Delivery::Held) {
      internal::MutexLock lock(mu_);
      held_.push_back([completion, reply] { completion(reply.results, reply.extra, reply.error); });
    } else {
      network_->async([completion, reply] { completion(reply.results, reply.extra, reply.error); });
    }
    return subscription;
  }

  mutable internal::Mutex mu_;
  std::vector<Object> getParams_ BRIVET_GUARDED_BY(mu_);
  std::vector<Object> callParams_ BRIVET_GUARDED_BY(mu_);
  std::vector<std::vector<std::string>> preGetKeyPaths_ BRIVET_GUARDED_BY(mu_);
  std::vector<std::function<void()>> held_ BRIVET_GUARDED_BY(mu_);
  std::shared_ptr<DispatchQueue> network_ = DispatchQueue::serial("test.network");
};

class RecordingLogger : public BrivetLoggerDelegate {
 public:
  bool enableLoggingInBrivet(BrivetModel& /*model*/) override { return enabled; }
  void logError(BrivetModel& /*model*/, const std::string& message) override { record(errors_, message); }
  std::optional<bool> enableExNetworkLoggingInBrivet(BrivetModel& /*model*/) override { return network; }
  void logInfo(BrivetModel& /*model*/, const std::string& message) override { record(infos_, message); }
  void logDebug(BrivetModel& /*model*/, const std::string& message) override { record(debugs_, message); }
  void logDebugUserInfo(BrivetModel& /*model*/, const Object& userInfo) override {
    internal::MutexLock lock(mu_);
    userInfos_.push_back(userInfo);
  }

  std::vector<std::string> errors() const { return read(errors_); }
  std::vector<std::string> infos() const { return read(infos_); }
  std::vector<std::string> debugs() const { return read(debugs_); }
  std::vector<Object> userInfos() const {
    internal::MutexLock lock(mu_);
    return userInfos_;
  }

  bool enabled = true;
  std::optional<bool> network;  // empty: the optional switch is not implemented

 private:
  void record(std::vector<std::string>& into, const std::string& message) {
    internal::MutexLock lock(mu_);
    into.push_back(message);
  }
  std::vector<std::string> read(const std::vector<std::string>& from) const {
    internal::MutexLock lock(mu_);
    return from;
  }

  mutable internal::Mutex mu_;
  std::vector<std::string> errors_;
  std::vector<std::string> infos_;
  std::vector<std::string> debugs_;
  std::vector<Object> userInfos_;
};

class RecordingTracer : public BrivetPerformanceTraceDelegate {
 public:
  struct End {
    UUID uuid;
    std::string taskName;
    std::optional<Error> error;
    bool cached;
    bool hasExpired;
  };

  bool enablePerformanceTracing(BrivetModel& /*model*/) override { return enabled; }
  void beginTraceForTaskName(BrivetModel& /*model*/, const std::string& taskName, const UUID& uuid) override {
    internal::MutexLock lock(mu_);
    begins_.emplace_back(taskName, uuid);
  }
  void endTraceForUUID(BrivetModel& /*model*/, const UUID& uuid, const std::string& taskName,
                       const std::optional<Error>& error, bool cached, bool hasExpired) override {
    internal::MutexLock lock(mu_);
    ends_.push_back(End{uuid, taskName, error, cached, hasExpired});
  }

  std::vector<std::pair<std::string, UUID>> begins() const {
    internal::MutexLock lock(mu_);
    return begins_;
  }
  std::vector<End> ends() const {
    internal::MutexLock lock(mu_);
    return ends_;
  }

  bool enabled = true;

 private:
  mutable internal::Mutex mu_;
  std::vector<std::pair<std::string, UUID>> begins_;
  std::vector<End> ends_;
};

// Completions as they arrive (on the main queue), with a wait that runs the main queue. Copies share the record,
// so a late completion never writes into a destroyed object.
class Completions {
 public:
  BrivetCompletion callback() {
    return [state = state_](Object result, std::optional<Error> error) {
      state->onMainQueue = state->onMainQueue && DispatchQueue::main()->isCurrent();
      state->results.push_back(result);
      state->errors.push_back(error);
    };
  }
  bool waitFor(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return DispatchQueue::main()->runUntil([&] { return state_->results.size() >= count; }, timeout);
  }
  bool allOnMainQueue() const { return state_->onMainQueue; }
  const std::vector<Object>& results() const { return state_->results; }
  const std::vector<std::optional<Error>>& errors() const { return state_->errors; }

 private:
  struct State {
    std::vector<Object> results;
    std::vector<std::optional<Error>> errors;
    bool onMainQueue = true;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace brivet::testing
