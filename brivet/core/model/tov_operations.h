// The platform-facing operations: what `TovModel` hands an application.
//
// `TovInternalGetOperation`, `TovInternalSetOperation` and
// `TovInternalCallOperation` wrap one core operation each (operations.h);
// their modifiers answer new wrappers around the modified copy, and
// `asStream` answers a `TovStream` that delivers platform dictionaries on the
// main queue. `TovGetOperation`, `TovSetOperation` and `TovCallOperation` are
// the protocols they adopt; `TovSubscription` is what a subscription answers.
//
// Wrappers are immutable and shared (`std::shared_ptr`); use them from any thread.
#pragma once

#include <memory>

#include "brivet/core/model/operations.h"
#include "brivet/core/model/stream.h"
#include "brivet/core/model/tov_stream.h"
#include "brivet/core/values/json_envelope.h"

namespace brivet {

// A subscription as the platform sees it: `cancel` ends it.
using TovSubscription = Subscription;

class TovGetOperation {
 public:
  virtual ~TovGetOperation() = default;
  virtual std::shared_ptr<TovGetOperation> progressively() const = 0;
  virtual std::shared_ptr<TovGetOperation> refresh() const = 0;
  virtual std::shared_ptr<TovGetOperation> skipMerge() const = 0;
  virtual TovStream<JSONEnvelope> asStream() const = 0;
};

class TovSetOperation {
 public:
  virtual ~TovSetOperation() = default;
  virtual std::shared_ptr<TovSetOperation> progressively() const = 0;
  virtual TovStream<JSONEnvelope> asStream() const = 0;
};

class TovCallOperation {
 public:
  virtual ~TovCallOperation() = default;
  virtual TovStream<JSONEnvelope> asStream() const = 0;
};

class TovInternalGetOperation final : public TovGetOperation {
 public:
  explicit TovInternalGetOperation(GetOperation operation) : operation_(std::move(operation)) {}
  const GetOperation& operation() const { return operation_; }

  std::shared_ptr<TovGetOperation> progressively() const override;
  std::shared_ptr<TovGetOperation> refresh() const override;
  std::shared_ptr<TovGetOperation> skipMerge() const override;
  TovStream<JSONEnvelope> asStream() const override;

 private:
  const GetOperation operation_;
};

class TovInternalSetOperation final : public TovSetOperation {
 public:
  explicit TovInternalSetOperation(SetOperation operation) : operation_(std::move(operation)) {}
  const SetOperation& operation() const { return operation_; }

  std::shared_ptr<TovSetOperation> progressively() const override;
  TovStream<JSONEnvelope> asStream() const override;

 private:
  const SetOperation operation_;
};

class TovInternalCallOperation final : public TovCallOperation {
 public:
  explicit TovInternalCallOperation(CallOperation operation) : operation_(std::move(operation)) {}
  const CallOperation& operation() const { return operation_; }

  TovStream<JSONEnvelope> asStream() const override;

 private:
  const CallOperation operation_;
};

}  // namespace brivet
