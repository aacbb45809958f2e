// Core — a model as Python holds it, its lock, and how calls take that.
//
// Every call on a model takes the model's lock, so threads of Python may share one. A thread that
// waits for the lock does not hold the interpreter's, so Python's other threads run on meanwhile,
// and the two cannot wait for each other. A process may fork at any time: the one that forks waits
// for whoever changes a model, and in the child all locks are free.
//
// A call that can fail returns (result, messages): what the library returned, and a list of what
// it said, each message as (severity, text).
#pragma once

#include <pybind11/pybind11.h>

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <type_traits>
#include <utility>
#include <vector>

#include "features/Watch.h"
#include "inference/IntegerFwdPass.h"
#include "inference/NNFwdPassFromFile.h"
#include "layers/Messages.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn::python {

namespace py = pybind11;

class LayerHandle;

// A pass in integers, which has copies of a model's weights, and what it was made of.
struct IntegerPass {
  std::size_t changes;  // of the model, so far
  WideInputs wideInputs;
  std::unique_ptr<IntegerFwdPass> pass;
};

// A model, its lock, and the layers that Python holds.
struct Core {
  Core();
  ~Core();
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  MultiLayerNNModel model;
  std::shared_mutex mutex;
  std::mutex handlesMutex;  // taken after the other one where both are
  // How often the model was locked for writing, or an array of it handed out.
  std::atomic<std::size_t> changes = 0;
  std::map<NNLayer*, std::weak_ptr<LayerHandle>> handles;

  // A forward pass over the model that nobody uses just now, or null. Whoever takes it, leaves
  // null.
  std::atomic<NNFwdPassFromFile*> sparePass = nullptr;

  // The same in integers. It counts where nothing has changed the model since: no call, and no
  // array that Python had been given.
  std::atomic<IntegerPass*> spareIntegers = nullptr;
};

using Reading = std::shared_lock<std::shared_mutex>;
using Writing = std::unique_lock<std::shared_mutex>;
using Said = std::pair<int, py::list>;

// Makes forks of this process safe. To be called once.
void guardForks();

// Guards the random source that all new layers share. Taken after a model's lock where both are.
std::mutex& randomSource();

// Returns a watch for work that reads the models under their locks, which lets Python's handlers of
// signals run, and throws what they raise: KeyboardInterrupt at Ctrl-C. A handler that would
// change one of these models then gets a RuntimeError.
Watch interruptedBySignals(std::vector<const Core*> models);

// Throws: std::runtime_error where this thread is running the model, and so would wait for itself.
void refuseWhileRunning(const Core& core);

// Runs `action(model)` under a lock of the model, without the interpreter's.
// REQUIRES: neither the action nor what it returns touches an object of Python.
template <typename Lock, typename Action>
auto locked(Core& core, Action action) {
  if constexpr (std::is_same_v<Lock, Writing>) refuseWhileRunning(core);
  const py::gil_scoped_release othersRun;
  const Lock lock(core.mutex);
  if constexpr (std::is_same_v<Lock, Writing>) ++core.changes;
  return action(core.model);
}

// The same for an action that reads, and for one that writes.
template <typename Action>
auto read(Core& core, Action action) {
  return locked<Reading>(core, action);
}
template <typename Action>
auto write(Core& core, Action action) {
  return locked<Writing>(core, action);
}

// Messages as Python gets them.
py::list listOf(const std::vector<Message>& messages);

// Runs an action as locked() does, and collects what the library says.
template <typename Lock, typename Action>
Said heard(Core& core, Action action) {
  const auto [result, messages] = locked<Lock>(core, [&action](MultiLayerNNModel& model) {
    const CollectedMessages said;
    const int done = action(model);
    return std::make_pair(done, said.messages());
  });
  return {result, listOf(messages)};
}

// The same for an action without a result.
template <typename Action>
Said heardDone(Core& core, Action action) {
  return heard<Writing>(core, [&action](MultiLayerNNModel& model) {
    action(model);
    return 0;
  });
}

}  // namespace mlnn::python
