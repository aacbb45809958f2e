#include "inference/WorkerPool.h"

#ifdef __STDCPP_THREADS__

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "os/Process.h"
#include "os/ThreadPlace.h"

namespace mlnn {

// The threads, and the work that they share. They take it by rounds, in each of which every thread
// that comes takes parts until there are no more. A round ends when its parts are done: it waits
// for no thread that the system has not let run, and a late one finds the parts of the next round.
class WorkerPool::Crew {
 public:
  explicit Crew(int count) : process_(processNumber()) {
    threads_.reserve(static_cast<std::size_t>(count) - 1);
    startWithoutSignals([this, count] { start(count); });
  }

  ~Crew() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      ends_ = true;
    }
    begins_.notify_all();
    for (std::thread& thread : threads_) thread.join();
  }

  Crew(const Crew&) = delete;
  Crew& operator=(const Crew&) = delete;

  int threads() const { return static_cast<int>(threads_.size()); }

  // A fork copies what the threads left behind, locks that they held included, but no thread.
  bool isInItsProcess() const { return process_ == processNumber(); }

  // Gives the threads to one caller at a time.
  bool take() { return !isTaken_.test_and_set(std::memory_order_acquire); }
  void giveBack() { isTaken_.clear(std::memory_order_release); }

  void run(int parts, const Work& work) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      work_ = work;
      parts_ = parts;
      undone_.store(parts);
      untaken_.store(parts);
    }
    callerProcessor_ = processorInUse();
    begins_.notify_all();
    takeParts(0);
    waitUntil(ended_, [this] { return undone_.load() == 0; });
    if (failure_ == nullptr) return;
    const std::exception_ptr failure = std::move(failure_);
    failure_ = nullptr;
    std::rethrow_exception(failure);
  }

 private:
  void start(int count) {
    try {
      for (int worker = 1; worker < count; ++worker) {
        threads_.emplace_back([this, worker] { serve(worker); });
      }
    } catch (const std::exception&) {  // no more than these, then
    }
  }

  void serve(int worker) {
    while (!ends_) {
      waitUntil(begins_, [this] { return untaken_.load() > 0 || ends_; });
      // A thread that woke where the caller runs would take turns with it, and may stay there long.
      leaveProcessor(callerProcessor_);
      takeParts(worker);
    }
  }

  void takeParts(int worker) {
    Work work{};
    for (int part = 0; takePart(part, work);) {
      try {
        work.call(work.task, part, worker);
        finish(1);
      } catch (...) {
        finish(1 + leaveOthers(std::current_exception()));
      }
    }
  }

  // Returns whether there was one.
  bool takePart(int& part, Work& work) {
    if (untaken_.load() == 0) return false;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (untaken_.load() == 0) return false;
    part = parts_ - untaken_.fetch_sub(1);
    work = work_;
    return true;
  }

  // Returns how many parts were left to take.
  int leaveOthers(std::exception_ptr failure) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (failure_ == nullptr) failure_ = std::move(failure);
    return untaken_.exchange(0);
  }

  void finish(int parts) {
    if (undone_.fetch_sub(parts) > parts) return;
    const std::lock_guard<std::mutex> lock(mutex_);  // the caller looks, then sleeps, under it
    ended_.notify_one();
  }

  // A thread that sleeps is long in coming. So it looks for a while first, in which the next layer
  // or the next call usually comes, and leaves its processor to whoever wants it.
  template <typename Condition>
  void waitUntil(std::condition_variable& changed, const Condition& holds) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::microseconds kPatience{300};
    for (const Clock::time_point end = Clock::now() + kPatience; Clock::now() < end;) {
      if (holds()) return;
      std::this_thread::yield();
    }
    std::unique_lock<std::mutex> lock(mutex_);
    changed.wait(lock, holds);
  }

  const long process_;
  std::atomic_flag isTaken_ = ATOMIC_FLAG_INIT;
  std::mutex mutex_;
  std::condition_variable begins_;
  std::condition_variable ended_;
  Work work_{};
  int parts_ = 0;
  std::exception_ptr failure_;
  std::atomic<int> callerProcessor_{-1};
  std::atomic<bool> ends_{false};
  std::atomic<int> untaken_{0};       // parts; becomes less under the mutex alone
  std::atomic<int> undone_{0};        // parts
  std::vector<std::thread> threads_;  // the last member: they use the others
};

WorkerPool::WorkerPool(int count) {
  if (count <= 1) return;
  crew_ = std::make_unique<Crew>(count);
  count_ = crew_->threads() + 1;
}

WorkerPool::~WorkerPool() {
  if (crew_ != nullptr && !crew_->isInItsProcess()) crew_.release();
}

void WorkerPool::runParts(int parts, const Work& work) {
  const bool isShared = parts > 1 && crew_ != nullptr && crew_->isInItsProcess() && crew_->take();
  if (!isShared) {
    for (int part = 0; part < parts; ++part) work.call(work.task, part, 0);
    return;
  }
  struct Turn {
    Crew& crew;
    ~Turn() { crew.giveBack(); }
  } turn{*crew_};
  crew_->run(parts, work);
}

}  // namespace mlnn

#else  // the system has no threads

namespace mlnn {

class WorkerPool::Crew {};

WorkerPool::WorkerPool(int) {}
WorkerPool::~WorkerPool() = default;

void WorkerPool::runParts(int parts, const Work& work) {
  for (int part = 0; part < parts; ++part) work.call(work.task, part, 0);
}

}  // namespace mlnn

#endif
