#include "brivet/core/model/tov_operations.h"

namespace brivet {

std::shared_ptr<TovGetOperation> TovInternalGetOperation::progressively() const {
  return std::make_shared<TovInternalGetOperation>(operation_.progressively());
}
std::shared_ptr<TovGetOperation> TovInternalGetOperation::refresh() const {
  return std::make_shared<TovInternalGetOperation>(operation_.refresh());
}
std::shared_ptr<TovGetOperation> TovInternalGetOperation::skipMerge() const {
  return std::make_shared<TovInternalGetOperation>(operation_.skipMerge());
}
TovStream<JSONEnvelope> TovInternalGetOperation::asStream() const {
  return TovStream<JSONEnvelope>(operation_.asStream());
}

std::shared_ptr<TovSetOperation> TovInternalSetOperation::progressively() const {
  return std::make_shared<TovInternalSetOperation>(operation_.progressively());
}
TovStream<JSONEnvelope> TovInternalSetOperation::asStream() const {
  return TovStream<JSONEnvelope>(operation_.asStream());
}

TovStream<JSONEnvelope> TovInternalCallOperation::asStream() const {
  return TovStream<JSONEnvelope>(operation_.asStream());
}

}  // namespace brivet
