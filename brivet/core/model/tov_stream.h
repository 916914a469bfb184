// The platform-facing streams: TovStream (what an application subscribes to)
// and TovHTTPDataSourceResponseStream (what an application's HTTP client
// returns for one request).
//
// `TovStream<T>` wraps a core stream. Its `subscribeWithProgressBlock` hands
// each progress of a `JSONEnvelope` stream to the application as a platform
// dictionary (the envelope's json, with its context under "context" unless the
// json already has that key; values that are not dictionaries are not
// delivered), and the terminal event to the completion block as an optional
// platform error. It returns the subscription; `cancel` ends it. C++ callers
// that must say what failed use `subscribeWithProgressAndFailure`: its
// failure block gets the failure itself, whose `text()` keeps the reason and
// payload that the platform error leaves out.
//
// `TovHTTPDataSourceResponseStream` is built from the application's task block
// (called with a progress block taking a dictionary and a completion block
// taking an optional error) and cancel block; its `stream` delivers on the
// main queue. It cannot be made without them.
//
// Thread safety: as `Stream`; the blocks are called on the observe queue.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "brivet/core/model/stream.h"
#include "brivet/core/values/json_envelope.h"
#include "brivet/platform/error.h"
#include "brivet/platform/object.h"

namespace brivet {

using ProgressBlock = std::function<void(const Object& dictionary)>;
using CompletionBlock = std::function<void(const std::optional<Error>& error)>;
// The terminal event as the core sees it: the failure, or nullptr for completion.
using FailureBlock = std::function<void(const StreamError* failure)>;

// The dictionary an envelope is delivered as, or nil when its json is not a dictionary.
Object envelopeDictionary(const JSONEnvelope& envelope);

template <class T>
class TovStream {
 public:
  explicit TovStream(std::shared_ptr<Stream<T>> stream) : stream_(std::move(stream)) {}

  const std::shared_ptr<Stream<T>>& stream() const { return stream_; }

  std::shared_ptr<Subscription> subscribeWithProgressBlock(ProgressBlock progressBlock,
                                                           CompletionBlock completionBlock) const {
    FailureBlock failureBlock;
    if (completionBlock) {
      failureBlock = [completionBlock = std::move(completionBlock)](const StreamError* failure) {
        if (failure != nullptr) {
          completionBlock(failure->toError());
        } else {
          completionBlock(std::nullopt);
        }
      };
    }
    return subscribeWithProgressAndFailure(std::move(progressBlock), std::move(failureBlock));
  }

  std::shared_ptr<Subscription> subscribeWithProgressAndFailure(ProgressBlock progressBlock,
                                                                FailureBlock failureBlock) const {
    return stream_->subscribe([progressBlock = std::move(progressBlock),
                               failureBlock = std::move(failureBlock)](const BrivetResult<T>& result) {
      if (const T* value = result.value()) {
        if constexpr (std::is_same_v<T, JSONEnvelope>) {
          const Object dictionary = envelopeDictionary(*value);
          if (!dictionary.isNil() && progressBlock) progressBlock(dictionary);
        }
        return;
      }
      if (failureBlock) failureBlock(result.error());
    });
  }

 private:
  std::shared_ptr<Stream<T>> stream_;
};

class TovHTTPDataSourceResponseStream {
 public:
  using TaskBlock = std::function<void(ProgressBlock progress, CompletionBlock completion)>;
  using CancelBlock = std::function<void()>;

  TovHTTPDataSourceResponseStream() = delete;  // a response stream needs its task and cancel blocks
  TovHTTPDataSourceResponseStream(TaskBlock taskBlock, CancelBlock cancelBlock);

  const std::shared_ptr<Stream<Object>>& stream() const { return stream_; }

  // For the model's HTTP bridge: progress dictionaries to `progressBlock`, the
  // terminal event to `completionBlock`; cancelling the result cancels the stream.
  std::shared_ptr<Subscription> subscribe(ProgressBlock progressBlock, CompletionBlock completionBlock) const;

 private:
  std::shared_ptr<Stream<Object>> stream_;
};

}  // namespace brivet
