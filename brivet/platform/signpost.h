// Signposts: intervals and events that mark what the library is doing.
//
// A `SignpostLog` is a log object: the library's subsystem, a category
// ("Stream", "Cache", "DataSource") and whether it is enabled. Identifiers are
// 64-bit and unique in the process; 0 means "no signpost" and is what every
// begin answers when the log is disabled, and the all-ones value is never
// issued. An interval may begin inside another one, its parent: the cache and
// data-source intervals of an operation name its stream interval. Begins, ends and events go
// to the installed `SignpostSink`: an application may install its own (to
// forward to its platform's tracing), otherwise the built-in
// `SignpostRecorder` keeps them in memory and writes them as a Chrome
// trace-event JSON file that Perfetto and chrome://tracing open.
//
// The switch is the environment variable "SIGNPOSTS_FOR_BRIVET": present, with
// any value (even empty), signposts are on; absent, every begin returns 0 after
// one test. `BrivetSignpost` (the legacy model's class) reads the environment
// on every call; the core model reads it once per process
// (`signpostsEnabledForProcess`).
//
// Everything here may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "brivet/platform/error.h"
#include "brivet/platform/result.h"

namespace brivet {

inline constexpr std::string_view kSignpostEnvironmentVariable = "SIGNPOSTS_FOR_BRIVET";

enum class SignpostPhase { Begin, End, Event };

class SignpostSink {
 public:
  virtual ~SignpostSink() = default;
  virtual void emit(SignpostPhase phase, std::string_view subsystem, std::string_view category,
                    std::string_view name, std::uint64_t id, std::string_view message) = 0;
  // The begin of an interval inside the interval `parent`. A sink that does
  // not nest need not override it: by default the parent is dropped and this
  // is a plain begin.
  virtual void emitBegin(std::string_view subsystem, std::string_view category, std::string_view name,
                         std::uint64_t id, std::uint64_t parent, std::string_view message) {
    (void)parent;
    emit(SignpostPhase::Begin, subsystem, category, name, id, message);
  }
};

// The built-in sink: records signposts in memory.
class SignpostRecorder final : public SignpostSink {
 public:
  struct Record {
    SignpostPhase phase;
    std::string category;
    std::string name;
    std::uint64_t id;
    std::string message;
    std::chrono::steady_clock::time_point time;
    std::uint64_t thread;
    std::uint64_t parent = 0;  // begins: the enclosing interval, 0 for none
  };

  static const std::shared_ptr<SignpostRecorder>& shared();

  void emit(SignpostPhase phase, std::string_view subsystem, std::string_view category, std::string_view name,
            std::uint64_t id, std::string_view message) override;
  void emitBegin(std::string_view subsystem, std::string_view category, std::string_view name, std::uint64_t id,
                 std::uint64_t parent, std::string_view message) override;
  std::vector<Record> records() const;
  void clear();
  // Waits until every interval recorded as begun has been recorded as ended,
  // or `timeout` passes; answers whether none is left open. An operation closes
  // its intervals on its own queue just after it hands its terminal event to the
  // subscriber's queue, so a program that writes the trace as soon as the result
  // arrives waits here first. Any thread.
  bool waitForOpenIntervals(std::chrono::milliseconds timeout) const;
  // {"traceEvents": [...], "displayTimeUnit": "ms"}: intervals as nestable
  // async begin/end pairs ("b" / "e"), events as nestable async instants
  // ("n"). Every interval of one tree (an interval, those inside it, and so
  // on) carries the identifier of the tree's root as "id", so a trace viewer
  // shows the tree on one track with each interval nested in its parent;
  // "args" holds the interval's own identifier ("span"), its parent's
  // ("parent", when it has one), its category and its message.
  std::string chromeTraceJSON() const;
  [[nodiscard]] Result<void> writeChromeTrace(const std::string& path) const;

 private:
  struct State;
  std::shared_ptr<State> state_ = makeState();
  static std::shared_ptr<State> makeState();
};

// Installs the sink every log emits to; nullptr restores the built-in recorder.
void setSignpostSink(std::shared_ptr<SignpostSink> sink);
std::shared_ptr<SignpostSink> signpostSink();

// Whether "SIGNPOSTS_FOR_BRIVET" is present now / was present at the first call.
bool signpostsEnabledInEnvironment();
bool signpostsEnabledForProcess();

class SignpostLog {
 public:
  SignpostLog(std::string_view category, bool enabled) : category_(category), enabled_(enabled) {}

  bool isEnabled() const { return enabled_; }
  const std::string& category() const { return category_; }
  // A fresh identifier (never 0 or all ones), or 0 when the log is disabled.
  std::uint64_t generateID() const;
  // Emit only when the log is enabled and `id` is neither 0 nor all ones.
  // `parent` is the enclosing interval (0: none).
  void intervalBegin(std::uint64_t id, std::string_view name, std::string_view message,
                     std::uint64_t parent = 0) const;
  void intervalEnd(std::uint64_t id, std::string_view name, std::string_view message) const;
  void event(std::uint64_t id, std::string_view name, std::string_view message) const;

 private:
  std::string category_;
  bool enabled_;
};

// The legacy model's signposts: three logs named after their category, with
// the interval formats "method=%@, progressive=%d, refresh=%d, path=%@" /
// "status=%@" (Stream), "method=%@, path=%@" / "miss=%d" (Cache) and
// "method=%@, path=%@" / "status=%@" (DataSource). Statuses are "Complete" or
// "Error"; the legacy model always reports progressive as 0.
class BrivetSignpost {
 public:
  BrivetSignpost() = delete;

  static constexpr std::string_view kStream = "Stream";
  static constexpr std::string_view kCache = "Cache";
  static constexpr std::string_view kDataSource = "DataSource";

  static SignpostLog stream();
  static SignpostLog cache();
  static SignpostLog dataSource();
  static bool isStreamEnabled();
  static bool isCacheEnabled();
  static bool isDataSourceEnabled();

  static std::uint64_t beginStreamForMethod(std::string_view method, bool refresh, std::string_view path);
  static void endStreamWithId(std::uint64_t id, bool success);
  // `parent`: the stream interval the cache or data-source interval belongs to (0: none).
  static std::uint64_t beginCacheForMethod(std::string_view method, std::string_view path,
                                           std::uint64_t parent = 0);
  static void endCacheWithId(std::uint64_t id, std::int64_t miss);
  static std::uint64_t beginDataSourceForMethod(std::string_view method, std::string_view path,
                                                std::uint64_t parent = 0);
  static void endDataSourceWithId(std::uint64_t id, bool success);
};

}  // namespace brivet
