#include "brivet/platform/signpost.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>
#include <unordered_map>

#include "brivet/platform/format.h"
#include "brivet/platform/identifier.h"
#include "brivet/platform/internal/mutex.h"
#include "brivet/platform/json.h"

namespace brivet {
namespace {

using internal::Mutex;
using internal::MutexLock;

constexpr std::uint64_t kInvalidID = ~std::uint64_t{0};

struct SinkSlot {
  Mutex mu;
  std::shared_ptr<SignpostSink> sink BRIVET_GUARDED_BY(mu);
};
SinkSlot& sinkSlot() {
  static auto* slot = new SinkSlot();
  return *slot;
}

std::uint64_t currentThreadID() { return std::hash<std::thread::id>{}(std::this_thread::get_id()) & 0xFFFFFFFFu; }

const char* phaseName(SignpostPhase phase) {
  switch (phase) {
    case SignpostPhase::Begin: return "b";
    case SignpostPhase::End: return "e";
    case SignpostPhase::Event: return "n";
  }
  return "n";
}

std::string hexID(std::uint64_t id) { return formatString("0x%llx", static_cast<unsigned long long>(id)); }

void emitTo(SignpostPhase phase, std::string_view category, std::uint64_t id, std::string_view name,
            std::string_view message) {
  signpostSink()->emit(phase, kReverseDomain, category, name, id, message);
}

}  // namespace

// --- Switch ---

bool signpostsEnabledInEnvironment() {
  return std::getenv(std::string(kSignpostEnvironmentVariable).c_str()) != nullptr;
}

bool signpostsEnabledForProcess() {
  static const bool enabled = signpostsEnabledInEnvironment();
  return enabled;
}

// --- Sink ---

void setSignpostSink(std::shared_ptr<SignpostSink> sink) {
  MutexLock lock(sinkSlot().mu);
  sinkSlot().sink = std::move(sink);
}

std::shared_ptr<SignpostSink> signpostSink() {
  {
    MutexLock lock(sinkSlot().mu);
    if (sinkSlot().sink != nullptr) return sinkSlot().sink;
  }
  return SignpostRecorder::shared();
}

// --- Recorder ---

struct SignpostRecorder::State {
  mutable Mutex mu;
  std::vector<Record> records BRIVET_GUARDED_BY(mu);
  std::size_t open BRIVET_GUARDED_BY(mu) = 0;  // begins not yet matched by an end
  mutable CondVar allClosed;
  const std::chrono::steady_clock::time_point origin = std::chrono::steady_clock::now();
};

std::shared_ptr<SignpostRecorder::State> SignpostRecorder::makeState() { return std::make_shared<State>(); }

const std::shared_ptr<SignpostRecorder>& SignpostRecorder::shared() {
  static const auto* recorder = new std::shared_ptr<SignpostRecorder>(std::make_shared<SignpostRecorder>());
  return *recorder;
}

void SignpostRecorder::emit(SignpostPhase phase, std::string_view subsystem, std::string_view category,
                            std::string_view name, std::uint64_t id, std::string_view message) {
  if (phase == SignpostPhase::Begin) {
    emitBegin(subsystem, category, name, id, 0, message);
    return;
  }
  Record record{phase,   std::string(category), std::string(name), id, std::string(message),
                std::chrono::steady_clock::now(), currentThreadID()};
  MutexLock lock(state_->mu);
  state_->records.push_back(std::move(record));
  if (phase == SignpostPhase::End && state_->open > 0 && --state_->open == 0) state_->allClosed.notifyAll();
}

void SignpostRecorder::emitBegin(std::string_view /*subsystem*/, std::string_view category, std::string_view name,
                                 std::uint64_t id, std::uint64_t parent, std::string_view message) {
  Record record{SignpostPhase::Begin, std::string(category), std::string(name), id, std::string(message),
                std::chrono::steady_clock::now(), currentThreadID(), parent};
  MutexLock lock(state_->mu);
  state_->records.push_back(std::move(record));
  ++state_->open;
}

std::vector<SignpostRecorder::Record> SignpostRecorder::records() const {
  MutexLock lock(state_->mu);
  return state_->records;
}

void SignpostRecorder::clear() {
  MutexLock lock(state_->mu);
  state_->records.clear();
  state_->open = 0;
  state_->allClosed.notifyAll();
}

bool SignpostRecorder::waitForOpenIntervals(std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  MutexLock lock(state_->mu);
  while (state_->open > 0) {
    if (!state_->allClosed.waitUntil(state_->mu, deadline) && std::chrono::steady_clock::now() >= deadline) break;
  }
  return state_->open == 0;
}

std::string SignpostRecorder::chromeTraceJSON() const {
  const std::vector<Record> all = records();
  std::vector<Object> events;
  events.reserve(all.size() + 1);
  events.push_back(Object::dictionary({{"name", "process_name"},
                                       {"ph", "M"},
                                       {"pid", 1},
                                       {"args", Object::dictionary({{"name", std::string(kReverseDomain)}})}}));
  // The tree each interval belongs to: follow parents up to an interval with
  // none (or one that was not recorded). A chain never runs longer than the
  // number of intervals, so a cycle cannot hang the walk.
  std::unordered_map<std::uint64_t, std::uint64_t> parents;
  for (const Record& r : all) {
    if (r.phase == SignpostPhase::Begin) parents.emplace(r.id, r.parent);
  }
  auto rootOf = [&](std::uint64_t id) {
    for (std::size_t steps = 0; steps <= parents.size(); ++steps) {
      const auto found = parents.find(id);
      if (found == parents.end() || found->second == 0) return id;
      id = found->second;
    }
    return id;
  };
  for (const Record& r : all) {
    const auto micros =
        std::chrono::duration<double, std::micro>(r.time - state_->origin).count();
    std::vector<Object::Entry> args{{"message", r.message}, {"category", r.category}, {"span", hexID(r.id)}};
    if (r.phase == SignpostPhase::Begin && r.parent != 0) args.emplace_back("parent", hexID(r.parent));
    events.push_back(Object::dictionary({{"name", r.name},
                                         {"cat", std::string(kReverseDomain)},
                                         {"ph", phaseName(r.phase)},
                                         {"ts", micros},
                                         {"pid", 1},
                                         {"tid", r.thread},
                                         {"id", hexID(rootOf(r.id))},
                                         {"args", Object::dictionary(std::move(args))}}));
  }
  const Object trace =
      Object::dictionary({{"traceEvents", Object::array(std::move(events))}, {"displayTimeUnit", "ms"}});
  Result<std::string> text = writeJSON(trace, JSONWritingOptions::None);
  return text.ok() ? std::move(text).value() : std::string("{\"traceEvents\":[]}");
}

Result<void> SignpostRecorder::writeChromeTrace(const std::string& path) const {
  const std::string text = chromeTraceJSON();
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) {
    return Error::withDescription(std::string(kReverseDomain), -1, "cannot open trace file " + path);
  }
  const bool ok = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  const bool closed = std::fclose(file) == 0;
  if (!ok || !closed) {
    return Error::withDescription(std::string(kReverseDomain), -1, "cannot write trace file " + path);
  }
  return {};
}

// --- SignpostLog ---

std::uint64_t SignpostLog::generateID() const {
  if (!enabled_) return 0;
  static std::atomic<std::uint64_t> next{1};
  std::uint64_t id = next.fetch_add(1, std::memory_order_relaxed);
  while (id == 0 || id == kInvalidID) id = next.fetch_add(1, std::memory_order_relaxed);
  return id;
}

void SignpostLog::intervalBegin(std::uint64_t id, std::string_view name, std::string_view message,
                                std::uint64_t parent) const {
  if (enabled_ && id != 0 && id != kInvalidID) {
    signpostSink()->emitBegin(kReverseDomain, category_, name, id, parent == kInvalidID ? 0 : parent, message);
  }
}

void SignpostLog::intervalEnd(std::uint64_t id, std::string_view name, std::string_view message) const {
  if (enabled_ && id != 0 && id != kInvalidID) emitTo(SignpostPhase::End, category_, id, name, message);
}

void SignpostLog::event(std::uint64_t id, std::string_view name, std::string_view message) const {
  if (enabled_ && id != 0 && id != kInvalidID) emitTo(SignpostPhase::Event, category_, id, name, message);
}

// --- BrivetSignpost ---

SignpostLog BrivetSignpost::stream() { return SignpostLog(kStream, signpostsEnabledInEnvironment()); }
SignpostLog BrivetSignpost::cache() { return SignpostLog(kCache, signpostsEnabledInEnvironment()); }
SignpostLog BrivetSignpost::dataSource() { return SignpostLog(kDataSource, signpostsEnabledInEnvironment()); }
bool BrivetSignpost::isStreamEnabled() { return stream().isEnabled(); }
bool BrivetSignpost::isCacheEnabled() { return cache().isEnabled(); }
bool BrivetSignpost::isDataSourceEnabled() { return dataSource().isEnabled(); }

namespace {
std::uint64_t begin(const SignpostLog& log, const std::function<std::string()>& message, std::uint64_t parent = 0) {
  if (!log.isEnabled()) return 0;
  const std::uint64_t id = log.generateID();
  if (id != 0 && id != kInvalidID && log.isEnabled()) log.intervalBegin(id, log.category(), message(), parent);
  return id;
}
void end(const SignpostLog& log, std::uint64_t id, const std::function<std::string()>& message) {
  if (id != 0 && log.isEnabled() && id != kInvalidID) log.intervalEnd(id, log.category(), message());
}
const char* status(bool success) { return success ? "Complete" : "Error"; }
}  // namespace

std::uint64_t BrivetSignpost::beginStreamForMethod(std::string_view method, bool refresh, std::string_view path) {
  return begin(stream(), [&] {
    return formatString("method=%@, progressive=%d, refresh=%d, path=%@", method, 0, refresh ? 1 : 0, path);
  });
}

void BrivetSignpost::endStreamWithId(std::uint64_t id, bool success) {
  end(stream(), id, [&] { return formatString("status=%@", status(success)); });
}

std::uint64_t BrivetSignpost::beginCacheForMethod(std::string_view method, std::string_view path,
                                                  std::uint64_t parent) {
  return begin(cache(), [&] { return formatString("method=%@, path=%@", method, path); }, parent);
}

void BrivetSignpost::endCacheWithId(std::uint64_t id, std::int64_t miss) {
  end(cache(), id, [&] { return formatString("miss=%d", miss); });
}

std::uint64_t BrivetSignpost::beginDataSourceForMethod(std::string_view method, std::string_view path,
                                                       std::uint64_t parent) {
  return begin(dataSource(), [&] { return formatString("method=%@, path=%@", method, path); }, parent);
}

void BrivetSignpost::endDataSourceWithId(std::uint64_t id, bool success) {
  end(dataSource(), id, [&] { return formatString("status=%@", status(success)); });
}

}  // namespace brivet
