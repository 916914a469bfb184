#include "brivet/core/model/tov_stream.h"

#include <vector>

namespace brivet {

Object envelopeDictionary(const JSONEnvelope& envelope) {
  const Object json = envelope.json.toAnyType();
  const Dictionary* d = json.asDictionary();
  if (d == nullptr) return Object();
  if (!envelope.context) return json;
  const Object context = envelope.context->toAnyType();
  if (!context.isDictionary() || d->contains("context")) return json;
  std::vector<Object::Entry> entries(d->begin(), d->end());
  entries.emplace_back(Object("context"), context);
  return Object::dictionaryWithDistinctKeys(std::move(entries), false);
}

TovHTTPDataSourceResponseStream::TovHTTPDataSourceResponseStream(TaskBlock taskBlock, CancelBlock cancelBlock)
    : stream_(Stream<Object>::create(
          [taskBlock = std::move(taskBlock)](Stream<Object>::Observer observer) {
            if (!taskBlock) return;
            taskBlock([observer](const Object& dictionary) { observer(BrivetResult<Object>::progress(dictionary)); },
                      [observer](const std::optional<Error>& error) {
                        observer(error ? BrivetResult<Object>::failure(*error) : BrivetResult<Object>::complete());
                      });
          },
          [cancelBlock = std::move(cancelBlock)] {
            if (cancelBlock) cancelBlock();
          })) {}

std::shared_ptr<Subscription> TovHTTPDataSourceResponseStream::subscribe(ProgressBlock progressBlock,
                                                                         CompletionBlock completionBlock) const {
  std::shared_ptr<Subscription> inner =
      stream_->subscribe([progressBlock = std::move(progressBlock),
                          completionBlock = std::move(completionBlock)](const BrivetResult<Object>& result) {
        if (const Object* dictionary = result.value()) {
          if (progressBlock) progressBlock(*dictionary);
        } else if (completionBlock) {
          completionBlock(result.error() ? std::optional<Error>(result.error()->toError()) : std::nullopt);
        }
      });
  return std::make_shared<InternalSubscription>([inner] { inner->cancel(); });
}

}  // namespace brivet
