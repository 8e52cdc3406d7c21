// The opt-in thread pool: created on the first parallel_for that has more than
// one thread to use, never before; workers sleep until a call shares work.
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <pthread.h>

#include "parallel.hpp"
#include "threads.hpp"

namespace vemoproc {

namespace {

std::atomic<int> thread_setting{1};

}  // namespace

void set_num_threads(int n) {
  if (n < 1 || n > kMaxThreads) {
    throw std::runtime_error("set_num_threads(): n must be between 1 and " +
                             std::to_string(kMaxThreads) + ", got " + std::to_string(n));
  }
  thread_setting.store(n, std::memory_order_relaxed);
}

int num_threads() { return thread_setting.load(std::memory_order_relaxed); }

namespace detail {

namespace {

// One parallel_for call: pieces are claimed one at a time by whichever thread
// is free, the caller first among them.
struct Job {
  Job(const std::function<void(size_t)>& f, size_t n, size_t workers)
      : fn(f), count(n), workers_wanted(workers) {}

  const std::function<void(size_t)>& fn;
  const size_t count;
  const size_t workers_wanted;
  size_t workers_joined = 0;  // guarded by the pool's mutex
  std::atomic<size_t> next{0};
  std::atomic<bool> failed{false};

  std::mutex mutex;
  std::condition_variable all_finished;
  size_t finished = 0;       // guarded by mutex
  std::exception_ptr error;  // guarded by mutex; the first exception thrown

  bool has_unclaimed() const { return next.load() < count; }

  // Runs pieces until every one is claimed. After a failure the remaining
  // pieces are counted as finished without running.
  void work() {
    for (;;) {
      const size_t i = next.fetch_add(1);
      if (i >= count) return;
      if (!failed.load()) {
        try {
          fn(i);
        } catch (...) {
          std::lock_guard<std::mutex> lock(mutex);
          if (!error) error = std::current_exception();
          failed.store(true);
        }
      }
      std::lock_guard<std::mutex> lock(mutex);
      if (++finished == count) all_finished.notify_all();
    }
  }

  void wait_and_rethrow() {
    std::unique_lock<std::mutex> lock(mutex);
    all_finished.wait(lock, [this] { return finished == count; });
    if (error) std::rethrow_exception(error);
  }
};

class Pool {
 public:
  // The process's pool, created on first use. A fork()ed child has only the
  // forking thread: it leaves its parent's pool untouched (its workers do not
  // exist there, so it is never joined or used) and makes its own on first use.
  static Pool& instance() {
    // Joins the live pool's workers at exit.
    static struct Reaper {
      ~Reaper() { delete live.exchange(nullptr); }
    } reaper;
    Pool* pool = live.load();
    if (pool != nullptr) return *pool;
    std::lock_guard<std::mutex> lock(creation);
    // Around fork(): no worker is between two jobs (freeing one, perhaps)
    // while the child is made, since the pool's lock is held across it.
    static const int registered = pthread_atfork(
        [] {
          creation.lock();
          if (Pool* p = live.load()) p->mutex_.lock();
        },
        [] {
          if (Pool* p = live.load()) p->mutex_.unlock();
          creation.unlock();
        },
        [] {
          Pool* parents = live.exchange(nullptr);
          // Kept reachable, never destroyed or unlocked: its threads belong
          // to the parent.
          if (parents != nullptr) {
            parents->abandoned_ = abandoned;
            abandoned = parents;
          }
          creation.unlock();
        });
    (void)registered;
    if (live.load() == nullptr) live.store(new Pool());
    return *live.load();
  }

  Pool() = default;
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  ~Pool() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    for (std::thread& t : workers_) t.join();
  }

  void run(const std::shared_ptr<Job>& job) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      grow(job->workers_wanted);
      jobs_.push_back(job);
    }
    wake_.notify_all();
    job->work();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      jobs_.remove(job);
    }
    job->wait_and_rethrow();
  }

 private:
  // Adds workers up to `wanted`. A system that refuses a new thread leaves
  // the pool smaller; callers then do more of their own work.
  void grow(size_t wanted) {
    while (workers_.size() < wanted) {
      try {
        workers_.emplace_back([this] { serve(); });
      } catch (const std::system_error&) {
        return;
      }
    }
  }

  std::shared_ptr<Job> open_job() const {
    for (const std::shared_ptr<Job>& job : jobs_) {
      if (job->workers_joined < job->workers_wanted && job->has_unclaimed()) return job;
    }
    return nullptr;
  }

  void serve() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      std::shared_ptr<Job> job;
      wake_.wait(lock, [&] { return stopping_ || (job = open_job()) != nullptr; });
      if (stopping_) return;
      ++job->workers_joined;
      lock.unlock();
      job->work();
      lock.lock();
      jobs_.remove(job);
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::list<std::shared_ptr<Job>> jobs_;
  std::vector<std::thread> workers_;
  bool stopping_ = false;
  Pool* abandoned_ = nullptr;  // the next pool left behind by an earlier fork()

  static std::atomic<Pool*> live;
  static std::mutex creation;  // held across fork(), so the child's copy is free
  static Pool* abandoned;      // pools a fork() left behind in this process
};

std::atomic<Pool*> Pool::live{nullptr};
std::mutex Pool::creation;
Pool* Pool::abandoned = nullptr;

}  // namespace

void parallel_for(size_t count, const std::function<void(size_t)>& fn) {
  const auto threads = static_cast<size_t>(num_threads());
  if (threads <= 1 || count <= 1) {
    for (size_t i = 0; i < count; ++i) fn(i);
    return;
  }
  Pool::instance().run(std::make_shared<Job>(fn, count, std::min(threads, count) - 1));
}

void parallel_for_each_item(size_t count, const std::function<void(size_t)>& fn) {
  if (num_threads() <= 1 || count <= 1) {
    for (size_t i = 0; i < count; ++i) fn(i);
    return;
  }
  std::vector<std::exception_ptr> errors(count);
  std::atomic<size_t> first_failure{count};
  parallel_for(count, [&](size_t i) {
    if (i > first_failure.load()) return;
    try {
      fn(i);
    } catch (...) {
      errors[i] = std::current_exception();
      size_t seen = first_failure.load();
      while (i < seen && !first_failure.compare_exchange_weak(seen, i)) {
      }
    }
  });
  const size_t failed = first_failure.load();
  if (failed < count) std::rethrow_exception(errors[failed]);
}

}  // namespace detail

}  // namespace vemoproc
