// WorkerPool — threads that wait for work, and take it in parts. Internal: not installed.
#pragma once

#include <memory>

namespace mlnn {

// Thread-safety: of calls of `run` that meet, one has the threads; the other does without.
class WorkerPool {
 public:
  // Starts `count` - 1 threads, or as many as the system gives.
  explicit WorkerPool(int count);

  // Waits until the threads are gone. A forked child has none to wait for.
  ~WorkerPool();

  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // The threads, with the one that calls `run`.
  int count() const { return count_; }

  // Calls task(part, worker) for each part from 0 to parts - 1, in any order and several at a time;
  // `worker`, from 0 to count() - 1, is another one in each thread. Returns when all are done.
  // Allocates nothing.
  // Throws: the first exception that a task threw; parts that had not begun by then are left out.
  template <typename Task>
  void run(int parts, const Task& task) {
    runParts(parts, {&callOf<Task>, &task});
  }

 private:
  struct Work {
    void (*call)(const void* task, int part, int worker);
    const void* task;
  };
  class Crew;

  template <typename Task>
  static void callOf(const void* task, int part, int worker) {
    (*static_cast<const Task*>(task))(part, worker);
  }

  void runParts(int parts, const Work& work);

  std::unique_ptr<Crew> crew_;  // null without further threads
  int count_ = 1;
};

}  // namespace mlnn
