#include "python/Core.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <set>
#include <stdexcept>

#include "os/Process.h"

namespace mlnn::python {
namespace {

// All models of the process, for forks. Never destroyed, since models may live until the very end.
struct LiveCores {
  std::mutex mutex;
  std::set<Core*> cores;
};

LiveCores& live() {
  static auto* const known = new LiveCores;
  return *known;
}

// The models that this thread is running while a handler of a signal runs.
thread_local std::vector<const Core*> runningHere;

// The thread that forks holds the interpreter's lock, which no thread waits for while it changes a
// model. Once no thread changes one, the child gets whole models.
void beforeFork() {
  live().mutex.lock();
  for (Core* const core : live().cores) core->mutex.lock_shared();
  for (Core* const core : live().cores) core->handlesMutex.lock();
  randomSource().lock();
}

void releaseSmallLocks() {
  randomSource().unlock();
  for (Core* const core : live().cores) core->handlesMutex.unlock();
}

void inParent() {
  releaseSmallLocks();
  for (Core* const core : live().cores) core->mutex.unlock_shared();
  live().mutex.unlock();
}

// Those that were reading are not here, and will never release their locks: new ones take their
// place.
void inChild() {
  releaseSmallLocks();
  for (Core* const core : live().cores) {
    new (&core->mutex) std::shared_mutex;
    const auto mine = std::count(runningHere.begin(), runningHere.end(), core);
    for (auto taken = mine; taken > 0; --taken) core->mutex.lock_shared();
  }
  live().mutex.unlock();
}

void letHandlersRun(const std::vector<const Core*>& models) {
  const py::gil_scoped_acquire python;
  const std::size_t before = runningHere.size();
  runningHere.insert(runningHere.end(), models.begin(), models.end());
  const int raised = PyErr_CheckSignals();
  runningHere.resize(before);
  if (raised != 0) throw py::error_already_set();
}

const char* nameOf(Severity severity) {
  switch (severity) {
    case Severity::kError:
      return "error";
    case Severity::kWarning:
      return "warning";
    case Severity::kInfo:
      break;
  }
  return "info";
}

}  // namespace

Core::Core() {
  const std::lock_guard<std::mutex> lock(live().mutex);
  live().cores.insert(this);
}

Core::~Core() {
  delete sparePass.load();
  delete spareIntegers.load();
  const std::lock_guard<std::mutex> lock(live().mutex);
  live().cores.erase(this);
}

void guardForks() { callAroundForks(&beforeFork, &inParent, &inChild); }

std::mutex& randomSource() {
  static std::mutex mutex;
  return mutex;
}

Watch interruptedBySignals(std::vector<const Core*> models) {
  if (!isFirstThread()) return {};  // handlers run in this one alone
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kBetweenLooks{20};
  return [models = std::move(models), last = Clock::now()](std::size_t) mutable {
    const Clock::time_point now = Clock::now();
    if (now - last < kBetweenLooks) return;
    letHandlersRun(models);
    last = now;
  };
}

void refuseWhileRunning(const Core& core) {
  if (std::find(runningHere.begin(), runningHere.end(), &core) == runningHere.end()) return;
  throw std::runtime_error("the model cannot be changed while this thread runs it");
}

py::list listOf(const std::vector<Message>& messages) {
  py::list list;
  for (const Message& message : messages) {
    list.append(py::make_tuple(nameOf(message.severity), py::bytes(message.text)));
  }
  return list;
}

}  // namespace mlnn::python
