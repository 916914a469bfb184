// C++20 coroutine support: an awaitable that resumes on the main queue, and a
// coroutine type that runs on its own.
//
// `MainQueueAwaitable<T>` is what the coroutine forms of the models answer
// (`co_await async::get(*model, {...})`, see tov_calls.h and kel_calls.h). It
// starts its operation when awaited (not before), and the coroutine resumes with
// the T on the main queue, always: even when the answer is at hand at once, the
// resumption is a main-queue block of its own, so code after the `co_await` runs
// where the application's completions run. It works with any coroutine type.
// If the awaiting coroutine is destroyed while it waits, the operation is
// cancelled and nothing resumes.
//
// `Detached` is the simplest coroutine type to write such code with: a function
// returning `Detached` starts at once on the calling thread, runs until its
// first `co_await`, goes on on the main queue, and frees itself at its end; its
// caller does not wait for it. (An exception escaping it terminates the program.)
//
//   brivet::Detached showTitle(std::shared_ptr<brivet::TovInternalModel> model) {
//     auto title = co_await brivet::async::getValue<std::string>(*model, "lists.top.0.title");
//     ...  // on the main queue
//   }
//
// Threads: await from any thread; the main queue must be running (an
// executor, runUntil, or a MainQueueThread) for the coroutine to go on.
#pragma once

#include <coroutine>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "brivet/platform/dispatch_queue.h"

namespace brivet {

template <class T>
class [[nodiscard]] MainQueueAwaitable {
 public:
  // Called with the value once, from any thread.
  using Deliver = std::function<void(T value)>;
  // Starts the operation and answers how to cancel it.
  using Start = std::function<std::function<void()>(Deliver deliver)>;

  explicit MainQueueAwaitable(Start start) : start_(std::move(start)) {}
  MainQueueAwaitable(MainQueueAwaitable&&) = default;
  MainQueueAwaitable(const MainQueueAwaitable&) = delete;
  MainQueueAwaitable& operator=(const MainQueueAwaitable&) = delete;
  MainQueueAwaitable& operator=(MainQueueAwaitable&&) = delete;
  ~MainQueueAwaitable() {
    if (state_ != nullptr) state_->abandon();
  }

  bool await_ready() const noexcept { return false; }

  void await_suspend(std::coroutine_handle<> handle) {
    // Once the operation starts, the coroutine may resume (on the main queue)
    // and destroy this awaitable before `start` returns: nothing here touches
    // a member after that point.
    auto state = std::make_shared<State>();
    state->handle = handle;
    state_ = state;
    Start start = std::move(start_);
    std::function<void()> cancel = start([state](T value) { state->deliver(std::move(value)); });
    state->keepCancel(std::move(cancel));
  }

  T await_resume() { return std::move(*state_->value); }

 private:
  struct State : std::enable_shared_from_this<State> {
    std::mutex mu;
    std::coroutine_handle<> handle;  // empty once resumed or abandoned
    std::optional<T> value;
    std::function<void()> cancel;
    bool delivered = false;

    void deliver(T delivered_value) {
      {
        std::lock_guard<std::mutex> lock(mu);
        if (delivered) return;
        delivered = true;
        value.emplace(std::move(delivered_value));
        cancel = nullptr;
      }
      DispatchQueue::main()->async([self = this->shared_from_this()] {
        std::coroutine_handle<> h;
        {
          std::lock_guard<std::mutex> lock(self->mu);
          h = std::exchange(self->handle, nullptr);
        }
        if (h) h.resume();
      });
    }
    // The cancel block arrives after the operation started; an answer may already be in.
    void keepCancel(std::function<void()> c) {
      {
        std::lock_guard<std::mutex> lock(mu);
        if (delivered) return;
        if (handle) {
          cancel = std::move(c);
          return;
        }
      }
      if (c) c();  // abandoned while the operation was starting
    }
    void abandon() {
      std::function<void()> c;
      {
        std::lock_guard<std::mutex> lock(mu);
        handle = nullptr;
        c = std::move(cancel);
        cancel = nullptr;
      }
      if (c) c();
    }
  };

  Start start_;
  std::shared_ptr<State> state_;
};

// A coroutine its caller does not wait for (see the contract above).
struct Detached {
  struct promise_type {
    Detached get_return_object() noexcept { return {}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() noexcept {}
    void unhandled_exception() noexcept { std::terminate(); }
  };
};

}  // namespace brivet
