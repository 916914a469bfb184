// A custom object found by its own type without RTTI: the subscription an
// app's data source hands back, found again by the facade through
// `Object::asCustom<KelSubscription>()`. Builds and runs the same with and
// without -fno-rtti; needs no server.
//
//   ./custom_subscription
#include <iostream>
#include <memory>

#include "brivet/facade/kel_types.h"
#include "brivet/platform/object.h"

// [readme]
class MySubscription final : public brivet::CustomObject, public brivet::KelSubscription {
 public:
  void cancel() override;
  void* castTo(brivet::CustomTypeId type) override {
    return castAs<MySubscription, brivet::KelSubscription>(this, type);
  }
};
// [/readme]

namespace {
bool cancelled = false;
}  // namespace

void MySubscription::cancel() { cancelled = true; }

int main() {
  const brivet::Object handle(std::make_shared<MySubscription>());
  const std::shared_ptr<brivet::KelSubscription> subscription = handle.asCustom<brivet::KelSubscription>();
  const bool foundAsItself = handle.asCustom<MySubscription>() != nullptr;
  const bool notAnotherType = handle.asCustom<brivet::AnySubscriptionObject>() == nullptr;
  if (!subscription || !foundAsItself || !notAnotherType) {
    std::cerr << "the custom object was not found by its own types\n";
    return 1;
  }
  subscription->cancel();
  std::cout << (cancelled ? "cancelled\n" : "not cancelled\n");
  return cancelled ? 0 : 1;
}
