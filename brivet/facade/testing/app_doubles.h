// An application's side of the facade, for tests: a data source that answers from an in-memory JSON graph
// document, and a logger and a tracer that record what they receive (tests only).
//
// The data source answers a get's "path" entries (array-form key paths, ranges as {"from", "to"}) with the
// document's values along them, following references (arrays of keys) to their targets, as a server would. Its
// responses are fresh JSON trees (written and parsed again), answered inside the request or later from another
// thread. Everything records under a lock and may be called from any thread.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "brivet/facade/kel_model.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/internal/mutex.h"
#include "brivet/platform/json.h"

namespace brivet::testing {

inline Object parse(std::string_view text) {
  Result<Object> parsed = parseJSON(text, JSONReadingOptions::MutableContainers | JSONReadingOptions::FragmentsAllowed);
  return parsed.ok() ? parsed.value() : Object();
}

// A fresh copy, as if the tree had crossed the network.
inline Object wireCopy(const Object& tree) {
  Result<std::string> text = writeJSON(tree);
  return text.ok() ? parse(text.value()) : Object();
}

class DocumentDataSource : public KelDataSource {
 public:
  explicit DocumentDataSource(std::string_view document) : document_(parse(document)) {}

  bool enableCacheExpirationInBrivet(KelModel& /*model*/) override { return expiration; }

  Object getWithParams(KelModel& model, const Object& params, const std::optional<UUID>& /*uuid*/,
                       KelDataSourceCompletion completion) override {
    record(model, params, /*call=*/false);
    const Object value = Object::mutableDictionary();
    for (const Object& pathText :
         params["path"].isArray() ? params["path"].asArray()->elements() : std::span<const Object>()) {
      const Object path = parse(pathText.stringValue());
      if (path.isArray()) collect({}, path.asArray()->elements(), value);
    }
    answer(std::move(completion), wireCopy(Object::dictionary({{"value", value}})));
    return subscription;
  }

  Object callWithParams(KelModel& model, const Object& params, const std::optional<UUID>& /*uuid*/,
                        KelDataSourceCompletion completion) override {
    record(model, params, /*call=*/true);
    answer(std::move(completion), callResponse ? wireCopy(callResponse(params)) : parse(R"({"value": {}})"));
    return subscription;
  }

  std::optional<Object> preGetWithKeyPaths(KelModel& /*model*/, const std::vector<std::string>& /*keyPaths*/) override {
    return preGet;
  }
  std::optional<Object> preCallWithKeyPaths(KelModel& /*model*/,
                                            const std::optional<std::vector<std::string>>& /*keyPaths*/) override {
    return preCall;
  }

  std::vector<Object> gets() const {
    internal::MutexLock lock(mu_);
    return gets_;
  }
  std::vector<Object> calls() const {
    internal::MutexLock lock(mu_);
    return calls_;
  }
  std::vector<const KelModel*> senders() const {
    internal::MutexLock lock(mu_);
    return senders_;
  }

  // Configure before the requests start.
  bool expiration = false;
  bool answerLater = false;
  Object subscription;
  std::optional<Object> preGet;
  std::optional<Object> preCall;
  std::function<Object(const Object& params)> callResponse;

 private:
  void record(KelModel& model, const Object& params, bool call) {
    internal::MutexLock lock(mu_);
    (call ? calls_ : gets_).push_back(params);
    senders_.push_back(&model);
  }

  void answer(KelDataSourceCompletion completion, Object response) {
    if (answerLater) {
      network_->async([completion, response] { completion(response, Object(), std::nullopt); });
    } else {
      completion(response, Object(), std::nullopt);
    }
  }

  static std::vector<std::string> keysOf(const Object& position) {
    std::vector<std::string> keys;
    if (position.isString()) keys.emplace_back(position.stringValue());
    if (position.isNumber()) keys.push_back(position.description());
    if (position.isDictionary()) {
      for (std::int64_t i = position["from"].asNumber()->int64Value(); i <= position["to"].asNumber()->int64Value();
           ++i) {
        keys.push_back(std::to_string(i));
      }
    }
    return keys;
  }

  static void store(const Object& value, const std::vector<std::string>& at, const Object& out) {
    Object node = out;
    for (std::size_t i = 0; i + 1 < at.size(); ++i) {
      if (!node[at[i]].isMutableDictionary()) node.setValueForKey(Object::mutableDictionary(), at[i]);
      node = node[at[i]];
    }
    node.setValueForKey(value, at.back());
  }

  // Copies the document's values along `rest`, from the node at `at`, into `out` (at the same places).
  void collect(const std::vector<std::string>& at, std::span<const Object> rest, const Object& out) {
    Object node = document_;
    for (const std::string& key : at) node = node[key];
    for (const std::string& key : keysOf(rest.front())) {
      std::vector<std::string> childAt = at;
      childAt.push_back(key);
      const Object child = node[key];
      if (child.isNil()) continue;
      if (child.isArray() && child[0].isString()) {  // a reference: send it and what it points to
        store(child, childAt, out);
        std::vector<std::string> target;
        for (const Object& k : *child.asArray()) target.emplace_back(k.stringValue());
        if (rest.size() > 1) collect(target, rest.subspan(1), out);
      } else if (child.isDictionary() && child["$type"].isNil() && rest.size() > 1) {
        collect(childAt, rest.subspan(1), out);
      } else {
        store(child, childAt, out);
      }
    }
  }

  const Object document_;
  std::shared_ptr<DispatchQueue> network_ = DispatchQueue::serial("app.network");
  mutable internal::Mutex mu_;
  std::vector<Object> gets_ BRIVET_GUARDED_BY(mu_);
  std::vector<Object> calls_ BRIVET_GUARDED_BY(mu_);
  std::vector<const KelModel*> senders_ BRIVET_GUARDED_BY(mu_);
};

class AppLogger : public KelLoggerDelegate {
 public:
  bool enableLoggingInBrivet(KelModel& /*model*/) override { return enabled; }
  void logError(KelModel& model, const std::string& message) override { record(model, "error: " + message); }
  std::optional<bool> enableExNetworkLoggingInBrivet(KelModel& /*model*/) override { return network; }
  void logInfo(KelModel& model, const std::string& message) override { record(model, "info: " + message); }
  void logDebug(KelModel& model, const std::string& message) override { record(model, "debug: " + message); }
  void logDebugUserInfo(KelModel& model, const Object& userInfo) override {
    record(model, "userInfo: " + std::string(userInfo["message"].stringValue()));
  }

  std::vector<std::string> lines() const {
    internal::MutexLock lock(mu_);
    return lines_;
  }
  std::vector<const KelModel*> senders() const {
    internal::MutexLock lock(mu_);
    return senders_;
  }

  bool enabled = true;
  std::optional<bool> network;

 private:
  void record(KelModel& model, std::string line) {
    internal::MutexLock lock(mu_);
    lines_.push_back(std::move(line));
    senders_.push_back(&model);
  }
  mutable internal::Mutex mu_;
  std::vector<std::string> lines_ BRIVET_GUARDED_BY(mu_);
  std::vector<const KelModel*> senders_ BRIVET_GUARDED_BY(mu_);
};

class AppTracer : public KelPerformanceTraceDelegate {
 public:
  struct Trace {
    const KelModel* model;
    std::string taskName;
    UUID uuid;
    std::optional<Error> error;
    bool cached;
  };

  bool enablePerformanceTracingInBrivet(KelModel& /*model*/) override { return enabled; }
  void beginTrace(KelModel& model, const std::string& taskName, const UUID& uuid) override {
    internal::MutexLock lock(mu_);
    begins_.push_back(Trace{&model, taskName, uuid, std::nullopt, false});
  }
  void endTrace(KelModel& model, const UUID& uuid, const std::string& taskName, const std::optional<Error>& error,
                bool cached, bool /*hasExpired*/) override {
    internal::MutexLock lock(mu_);
    ends_.push_back(Trace{&model, taskName, uuid, error, cached});
  }

  std::vector<Trace> begins() const {
    internal::MutexLock lock(mu_);
    return begins_;
  }
  std::vector<Trace> ends() const {
    internal::MutexLock lock(mu_);
    return ends_;
  }

  bool enabled = true;

 private:
  mutable internal::Mutex mu_;
  std::vector<Trace> begins_ BRIVET_GUARDED_BY(mu_);
  std::vector<Trace> ends_ BRIVET_GUARDED_BY(mu_);
};

// A subscription of the application's own making.
class AppSubscription final : public CustomObject, public KelSubscription {
 public:
  void cancel() override { ++cancels; }
  int cancels = 0;
  void* castTo(CustomTypeId type) override { return castAs<AppSubscription, KelSubscription>(this, type); }
};

// Completions as they arrive on the main queue; copies share the record.
class Answers {
 public:
  KelModel::Completion callback() {
    return [state = state_](Object result, std::optional<Error> error) {
      state->results.push_back(std::move(result));
      state->errors.push_back(std::move(error));
    };
  }
  bool waitFor(std::size_t count) {
    return DispatchQueue::main()->runUntil([&] { return state_->results.size() >= count; }, std::chrono::seconds(20));
  }
  const Object& result(std::size_t i = 0) const { return state_->results.at(i); }
  const std::optional<Error>& error(std::size_t i = 0) const { return state_->errors.at(i); }

 private:
  struct State {
    std::vector<Object> results;
    std::vector<std::optional<Error>> errors;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace brivet::testing
