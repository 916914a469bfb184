// Many operations against one model from several threads while the cache is
// rewritten and invalidated, with cancellations mixed in: every subscription
// ends with exactly one terminal event (or none once cancelled), nothing is
// delivered after a cancel made on the delivering queue, and once the
// application lets go, every stream, the model and the client are released.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "brivet/core/model/testing/tov_doubles.h"
#include "brivet/core/model/tov_model.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;
using testing::json;
using testing::Reply;
using testing::Request;
using testing::ScriptedHTTPClient;

constexpr int kItems = 40;

// One subscription's events, checked against the rules. A probe is resolved
// by its terminal event or by a cancel that really ran, whichever comes first.
struct Probe {
  explicit Probe(std::atomic<int>& outstanding) : outstanding(outstanding) { ++outstanding; }

  void onProgress(bool cancelHere) {
    if (cancelledOnMain) deliveredAfterMainCancel = true;
    if (terminals > 0) progressAfterTerminal = true;
    if (cancelHere) cancel(/*onMain=*/true);
  }
  void onTerminal() {
    if (cancelledOnMain) deliveredAfterMainCancel = true;
    ++terminals;
    resolve();
  }
  void hold(std::shared_ptr<TovSubscription> held) {
    bool cancelNow = false;
    {
      std::lock_guard<std::mutex> lock(mu);
      subscription = held;
      cancelNow = pendingCancel;
    }
    if (cancelNow) cancelWith(held, /*onMain=*/false);
  }
  // A cancel asked for before the subscription is known runs as soon as it is.
  void cancel(bool onMain) {
    std::shared_ptr<TovSubscription> held;
    {
      std::lock_guard<std::mutex> lock(mu);
      held = subscription;
      if (held == nullptr) pendingCancel = true;
    }
    if (held != nullptr) cancelWith(held, onMain);
  }
  void resolve() {
    if (!resolved.exchange(true)) --outstanding;
  }

  std::atomic<int>& outstanding;
  std::atomic<int> terminals{0};
  std::atomic<bool> progressAfterTerminal{false};
  std::atomic<bool> cancelled{false};
  std::atomic<bool> cancelledOnMain{false};  // on the delivering queue: nothing may follow
  std::atomic<bool> deliveredAfterMainCancel{false};
  std::atomic<bool> resolved{false};

 private:
  void cancelWith(const std::shared_ptr<TovSubscription>& held, bool onMain) {
    cancelled = true;
    if (onMain) cancelledOnMain = true;
    held->cancel();
    resolve();
  }
  std::mutex mu;
  std::shared_ptr<TovSubscription> subscription;
  bool pendingCancel = false;
};

// A JSON Graph with a value at every path of a request's "path" array.
Object answerFor(const Object& paths, const std::string& value) {
  Object graph = Object::mutableDictionary();
  const Array* list = paths.asArray();
  if (list == nullptr) return graph;
  for (const Object& path : *list) {
    const Array* steps = path.asArray();
    if (steps == nullptr || steps->empty()) continue;
    std::vector<Object> level{graph};
    for (std::size_t i = 0; i < steps->size(); ++i) {
      std::vector<std::string> keys;
      const Object& step = (*steps)[i];
      if (step.isString()) keys.emplace_back(step.stringValue());
      if (const Array* set = step.asArray()) {
        for (const Object& key : *set) {
          if (key.isString()) keys.emplace_back(key.stringValue());
        }
      }
      std::vector<Object> next;
      for (const Object& node : level) {
        Dictionary* dictionary = node.asMutableDictionary();
        if (dictionary == nullptr) continue;
        for (const std::string& key : keys) {
          if (i + 1 == steps->size()) {
            dictionary->setObject(Object(value), key);
          } else {
            Object child = dictionary->objectForKey(key);
            if (!child.isMutableDictionary()) {
              child = Object::mutableDictionary();
              dictionary->setObject(child, key);
            }
            next.push_back(child);
          }
        }
      }
      level = std::move(next);
    }
  }
  return graph;
}

// The hung request's number, for a get of "items.hang<n>.v".
std::optional<int> hungRequest(const Request& request) {
  const Object key = request.parameters["path"][0][1];
  if (!key.isString() || key.stringValue().rfind("hang", 0) != 0) return std::nullopt;
  return std::stoi(std::string(key.stringValue().substr(4)));
}

Reply serverReply(const Request& request, std::atomic<int>& counter) {
  if (hungRequest(request)) return {{}, std::nullopt, testing::Delivery::Never};
  const int n = ++counter;
  if (n % 11 == 0) return {{}, httpFailure(500, json(R"({"code": "busy", "message": "try later"})"))};
  const Object method = request.parameters["method"];
  if (method.isString() && method.stringValue() == "set") {
    return {{Object::dictionary({{"jsonGraph", request.parameters["param"]}})}, std::nullopt};
  }
  if (method.isString() && method.stringValue() == "call") {
    return {{json(R"({"jsonGraph": {"items": {"i0": {"v": "called"}}}, "paths": [["items", "i0", "v"]],
                     "invalidated": [["items", "i1"]]})")},
            std::nullopt};
  }
  return {{Object::dictionary({{"jsonGraph", answerFor(request.parameters["path"], "r" + std::to_string(n))}})},
          std::nullopt};
}

TEST(TovModelStressTest, OperationsFromSeveralThreadsEndOnceAndReleaseEverything) {
  constexpr int kThreads = 4;
  constexpr int kOperationsPerThread = 250;

  auto client = std::make_shared<ScriptedHTTPClient>();
  std::atomic<int> answers{0};
  client->delivery = ScriptedHTTPClient::Delivery::Held;  // answered by the network thread below
  // A hung request is cancelled by its application once the client holds it.
  std::mutex hungMu;
  std::vector<std::shared_ptr<Probe>> hung;
  client->responder = [&](const Request& request) {
    if (std::optional<int> n = hungRequest(request)) {
      std::lock_guard<std::mutex> lock(hungMu);
      DispatchQueue::main()->async([probe = hung.at(static_cast<std::size_t>(*n))] { probe->cancel(/*onMain=*/true); });
    }
    return serverReply(request, answers);
  };
  auto logger = std::make_shared<testing::RecordingLoggingDelegate>();
  auto model = TovBrivet::createTovModelWithUrl("https://graph.example/model.json", client,
                                                json(R"({"items": {"i0": {"v": "seed"}}})"));
  model->setLoggingDelegate(logger);

  std::mutex mu;
  std::vector<std::shared_ptr<Probe>> probes;
  std::vector<std::weak_ptr<Stream<JSONEnvelope>>> streams;
  std::atomic<int> outstanding{0};  // subscriptions neither ended nor cancelled yet
  std::atomic<int> running{kThreads};

  auto worker = [&](int seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    auto item = [&] { return "items.i" + std::to_string(pick(kItems)) + ".v"; };
    for (int i = 0; i < kOperationsPerThread; ++i) {
      auto probe = std::make_shared<Probe>(outstanding);
      // 0: cancel at once from this thread; 1: cancel on the main queue; 2, 3: cancel
      // on the main queue at the first progress; otherwise never.
      const int operation = pick(9);
      const int cancelMode = operation == 7 ? -1 : pick(8);  // a hung get is cancelled by its request
      const bool cancelAtProgress = cancelMode == 2 || cancelMode == 3;
      auto onProgress = [probe, cancelAtProgress](const Object&) { probe->onProgress(cancelAtProgress); };
      auto onTerminal = [probe](const std::optional<Error>&) { probe->onTerminal(); };
      auto track = [&](const TovStream<JSONEnvelope>& stream) {
        probe->hold(stream.subscribeWithProgressBlock(onProgress, onTerminal));
        std::lock_guard<std::mutex> lock(mu);
        streams.push_back(stream.stream());
      };
      switch (operation) {
        case 0: track(model->getWithKeyPaths({item(), item()})->asStream()); break;
        case 1: track(model->getWithKeyPaths({item()})->progressively()->asStream()); break;
        case 2: track(model->getWithKeyPaths({item()})->refresh()->progressively()->asStream()); break;
        case 3: track(model->getWithKeyPaths({item(), item()})->skipMerge()->progressively()->asStream()); break;
        case 4: {
          auto set = model->setWithValue(Object::dictionary(
              {{"items",
                Object::dictionary({{"i" + std::to_string(pick(kItems)), Object::dictionary({{"v", "w"}})}})}}));
          track((pick(2) == 0 ? set->progressively() : set)->asStream());
          break;
        }
        case 5:
          track(model->callFunctionWithKeyPath("items.touch", std::nullopt, std::nullopt, std::nullopt)->asStream());
          break;
        case 7: {
          std::size_t n;
          {
            std::lock_guard<std::mutex> lock(hungMu);
            n = hung.size();
            hung.push_back(probe);
          }
          track(model->getWithKeyPaths({"items.hang" + std::to_string(n) + ".v"})->asStream());
          break;
        }
        case 6:
          probe->hold(model->getKeyPaths(
              {item()}, static_cast<TovModelOption>(pick(3)),
              [onTerminal](const Object&, const std::optional<Error>& error) { onTerminal(error); }));
          break;
        default:
          // Synchronous traffic in between, as an application mixes it in.
          model->valuesForKeyPaths({item(), item()});
          model->setValueForKeyPath(Object("local"), item());
          probe->resolve();
          continue;
      }
      {
        std::lock_guard<std::mutex> lock(mu);
        probes.push_back(probe);
      }
      if (cancelMode == 0) {
        probe->cancel(/*onMain=*/false);
      } else if (cancelMode == 1) {
        DispatchQueue::main()->async([probe] { probe->cancel(/*onMain=*/true); });
      }
    }
    --running;
  };
  // A slow network: requests wait until a batch of them is open, so cancels and
  // invalidations meet requests in flight.
  auto network = [&] {
    while (running > 0) {
      if (client->heldCount() >= 8) client->releaseHeld();
      std::this_thread::yield();
    }
  };
  auto invalidator = [&] {
    std::mt19937 random(99);
    while (running > 0) {
      model->invalidateWithKeyPaths({"items.i" + std::to_string(random() % kItems)});
      model->mergeJSONDictionaryIntoModel(Object::dictionary(
          {{"items",
            Object::dictionary({{"i" + std::to_string(random() % kItems), Object::dictionary({{"v", "m"}})}})}}));
      std::this_thread::yield();
    }
  };

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(worker, t + 1);
  threads.emplace_back(invalidator);
  threads.emplace_back(network);
  const bool finished = DispatchQueue::main()->runUntil(
      [&] {
        if (running == 0) client->releaseHeld();  // the last answers
        return running == 0 && outstanding == 0;
      },
      std::chrono::minutes(3));
  for (std::thread& thread : threads) thread.join();
  ASSERT_TRUE(finished) << outstanding << " subscriptions never ended";

  // Let cancelled requests and late answers run out, then check every subscription.
  const std::shared_ptr<DispatchQueue> modelQueue = model->internalModel().operationQueue();
  for (int round = 0; round < 10; ++round) {
    bool flushed = false;
    modelQueue->async([&] { taskQueue()->async([&] { DispatchQueue::main()->async([&] { flushed = true; }); }); });
    DispatchQueue::main()->runUntil([&] { return flushed; }, 10s);
  }
  int cancelled = 0;
  for (const auto& probe : probes) {
    EXPECT_FALSE(probe->progressAfterTerminal);
    EXPECT_FALSE(probe->deliveredAfterMainCancel);
    EXPECT_LE(probe->terminals, 1);
    if (probe->cancelled) {
      ++cancelled;
    } else {
      EXPECT_EQ(probe->terminals, 1);
    }
  }
  EXPECT_GT(cancelled, 0);
  // Every hung request was cancelled in flight, whatever else happened to its subscription.
  EXPECT_GE(client->aborted(), static_cast<int>(hung.size()));

  // Nothing outlives the application's references.
  std::weak_ptr<TovInternalModel> weakModel = model;
  std::weak_ptr<ScriptedHTTPClient> weakClient = client;
  probes.clear();
  model.reset();
  client.reset();
  const bool released = DispatchQueue::main()->runUntil(
      [&] {
        for (const auto& stream : streams) {
          if (!stream.expired()) return false;
        }
        return weakModel.expired() && weakClient.expired();
      },
      60s);
  EXPECT_TRUE(released);
}

}  // namespace
}  // namespace brivet
