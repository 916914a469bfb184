// MainQueueThread: runs the main queue on a thread of its own.
//
// Completions and stream events reach the application on the main queue, which
// runs where the application says (dispatch_queue.h). A program with no main
// loop of its own (a command-line tool, a server, a test) that wants to wait for
// answers with the blocking forms (tov_calls.h, kel_calls.h) creates one
// MainQueueThread first: while it lives, main-queue blocks run, in order, on
// its thread, and any thread but that one may block waiting for them.
//
//   int main() {
//     brivet::MainQueueThread mainQueue;
//     ... blocking::get(*model, {"lists.top.0.title"}) ...
//   }
//
// It installs itself as the main-queue executor for its lifetime (an executor
// installed before is replaced, and none is installed afterwards). Its
// destructor runs the blocks already handed to it, then stops; blocks posted
// after that wait on the main queue as usual. One at a time: creating a second
// while one lives is a precondition failure. Create and destroy it on one thread,
// never from a main-queue block.
#pragma once

#include <memory>
#include <thread>

namespace brivet {

class MainQueueThread {
 public:
  MainQueueThread();
  ~MainQueueThread();
  MainQueueThread(const MainQueueThread&) = delete;
  MainQueueThread& operator=(const MainQueueThread&) = delete;

  // Whether the calling thread is the one running the main queue.
  bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

 private:
  class Executor;
  std::shared_ptr<Executor> executor_;
  std::thread thread_;
};

}  // namespace brivet
