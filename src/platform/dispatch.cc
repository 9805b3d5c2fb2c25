// Executors over Asio. This is the only translation unit of the library that includes Asio:
// the main queue is an io_context that the host drains, the background pool is an Asio
// thread pool, delayed work and descriptor watches wait on a timer thread of its own, and
// serial queues are written here on top of the pool (see SerialQueue::Impl for why).
#include "kp/platform/dispatch.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <thread>

#include "kp/platform/task_local.h"
#include "platform/env.h"
#include "platform/fd_watch.h"
#include "platform/no_destructor.h"
#include "platform/tls.h"

namespace asio = boost::asio;

namespace kp {
namespace {

KP_FAST_TLS thread_local const void* tInnermostFrame = nullptr;
std::atomic<std::thread::id> gMainThread{};

// Wraps work so that it runs with the poster's task-local bindings.
template <class Run>
auto carryingBindings(Run run) {
  return [bindings = currentTaskLocalBindings(), run = std::move(run)]() mutable {
    ScopedTaskLocalBindings scope(std::move(bindings));
    run();
  };
}

// One thread that owns every pending delay; due work is posted to its target queue.
class TimerService {
 public:
  static TimerService& shared() {
    // Queues and timers may still be used while statics are torn down.
    static internal::NoDestructor<TimerService> service;
    return *service;
  }
  TimerService() : guard_(asio::make_work_guard(context_)), thread_([this] { context_.run(); }) {}
  asio::io_context& context() { return context_; }

 private:
  asio::io_context context_;
  asio::executor_work_guard<asio::io_context::executor_type> guard_;
  std::thread thread_;
};

class GlobalQueue final : public DispatchQueue {
 public:
  GlobalQueue() : pool_(std::max(2u, std::thread::hardware_concurrency())) {}
  void async(Work work) override {
    asio::post(pool_, carryingBindings([this, work = std::move(work)] {
                 RunningFrame frame(this);
                 work();
               }));
  }
  // Items of a concurrent queue may run on any thread, so the caller's own thread will do.
  void sync(const std::function<void()>& work) override {
    RunningFrame frame(this);
    work();
  }
  const std::string& label() const noexcept override { return label_; }

 private:
  std::string label_ = "com.kp.global";
  asio::thread_pool pool_;
};

}  // namespace

// ---- DispatchQueue ----------------------------------------------------------------------

DispatchQueue::RunningFrame::RunningFrame(const DispatchQueue* queue) noexcept
    : queue_(queue), outer_(static_cast<const RunningFrame*>(tInnermostFrame)) {
  tInnermostFrame = this;
}

DispatchQueue::RunningFrame::~RunningFrame() { tInnermostFrame = outer_; }

bool DispatchQueue::isCurrent() const noexcept {
  for (auto* f = static_cast<const RunningFrame*>(tInnermostFrame); f != nullptr; f = f->outer_) {
    if (f->queue_ == this) return true;
  }
  return false;
}

bool DispatchQueue::runNowIfIdle(const std::function<void()>&) { return false; }

void DispatchQueue::asyncAfter(Duration delay, Work work) {
  auto& context = TimerService::shared().context();
  auto timer = std::make_shared<asio::steady_timer>(context, delay);
  // Delayed work keeps its queue alive until it has been handed over.
  std::shared_ptr<DispatchQueue> self = weak_from_this().lock();
  timer->async_wait([timer, self, target = this, work = carryingBindings(std::move(work))](
                        const boost::system::error_code&) mutable { target->async(std::move(work)); });
}

const std::shared_ptr<DispatchQueue>& globalQueue() {
  static internal::NoDestructor<std::shared_ptr<DispatchQueue>> queue(std::make_shared<GlobalQueue>());
  return *queue;
}

bool isMainThread() noexcept {
  const auto main = gMainThread.load(std::memory_order_acquire);
  if (main == std::thread::id()) return platform::Env::current().isProcessInitialThread();
  return main == std::this_thread::get_id();
}

// ---- MainQueue --------------------------------------------------------------------------

struct MainQueue::Impl {
  asio::io_context context{1};
  std::atomic<bool> stopRequested{false};
  std::mutex wakeupMutex;
  std::shared_ptr<const std::function<void()>> wakeup;  // guarded by wakeupMutex
  std::string label = "com.kp.main";

  // The draining thread becomes the main thread.
  void beginDrain() {
    gMainThread.store(std::this_thread::get_id(), std::memory_order_release);
    context.restart();
  }
};

const std::shared_ptr<MainQueue>& MainQueue::shared() {
  static internal::NoDestructor<std::shared_ptr<MainQueue>> queue(std::shared_ptr<MainQueue>(new MainQueue()));
  return *queue;
}

MainQueue::MainQueue() : impl_(std::make_unique<Impl>()) {}
MainQueue::~MainQueue() = default;

const std::string& MainQueue::label() const noexcept { return impl_->label; }

void MainQueue::async(Work work) {
  asio::post(impl_->context, carryingBindings([this, work = std::move(work)] {
               RunningFrame frame(this);
               work();
             }));
  std::shared_ptr<const std::function<void()>> wakeup;
  {
    std::lock_guard lock(impl_->wakeupMutex);
    wakeup = impl_->wakeup;
  }
  if (wakeup && *wakeup) (*wakeup)();
}

void MainQueue::sync(const std::function<void()>& work) {
  if (isCurrent() || isMainThread()) {
    RunningFrame frame(this);
    work();
    return;
  }
  std::promise<void> done;
  async([&] {
    work();
    done.set_value();
  });
  done.get_future().wait();
}

void MainQueue::run() {
  impl_->beginDrain();
  if (impl_->stopRequested.exchange(false)) return;
  auto guard = asio::make_work_guard(impl_->context);
  impl_->context.run();
  impl_->stopRequested.store(false);
}

std::size_t MainQueue::runFor(Duration duration) {
  impl_->beginDrain();
  if (impl_->stopRequested.exchange(false)) return 0;
  auto guard = asio::make_work_guard(impl_->context);
  const std::size_t count = impl_->context.run_for(duration);
  impl_->stopRequested.store(false);
  return count;
}

std::size_t MainQueue::runPending() {
  impl_->beginDrain();
  return impl_->context.poll();
}

void MainQueue::stop() {
  impl_->stopRequested.store(true);
  impl_->context.stop();
}

void MainQueue::setWakeupHandler(std::function<void()> handler) {
  auto shared = handler ? std::make_shared<const std::function<void()>>(std::move(handler)) : nullptr;
  std::lock_guard lock(impl_->wakeupMutex);
  impl_->wakeup = std::move(shared);
}

// ---- SerialQueue ------------------------------------------------------------------------
//
// Written here rather than as an Asio strand so that sync() is cheap and cannot starve:
// a caller that finds the queue idle runs its work on its own thread (one lock round trip),
// and a caller that finds earlier items waiting runs them itself, in order, before its own.
// It only ever waits while another thread is actively running an item of this queue, so a
// pool whose threads all block in sync() still makes progress.

namespace {

struct SyncTurn {
  bool granted = false;  // guarded by the queue's mutex
};

struct Item {
  Work work;
  TaskLocalSnapshot bindings;
  SyncTurn* turn = nullptr;  // set for the place of a waiting sync() call
};

}  // namespace

struct SerialQueue::Impl {
  std::string label;
  std::shared_ptr<DispatchQueue> target;
  std::mutex mutex;
  std::condition_variable turnGranted;
  std::deque<Item> items;  // guarded by mutex
  bool owned = false;      // guarded by mutex: a thread is running this queue's items
  bool scheduled = false;  // guarded by mutex: a drain job is queued on the target

  // How many items one drain job runs before it yields its pool thread to other queues.
  static constexpr int kDrainBudget = 64;
};

std::shared_ptr<SerialQueue> SerialQueue::make(std::string label, std::shared_ptr<DispatchQueue> target) {
  return std::shared_ptr<SerialQueue>(new SerialQueue(std::move(label), std::move(target)));
}

SerialQueue::SerialQueue(std::string label, std::shared_ptr<DispatchQueue> target) : impl_(std::make_unique<Impl>()) {
  impl_->label = std::move(label);
  impl_->target = std::move(target);
  if (!impl_->target) impl_->target = globalQueue();
}

SerialQueue::~SerialQueue() = default;

const std::string& SerialQueue::label() const noexcept { return impl_->label; }

void SerialQueue::async(Work work) {
  Item item{std::move(work), currentTaskLocalBindings()};
  bool post = false;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->items.push_back(std::move(item));
    if (!impl_->owned && !impl_->scheduled) post = impl_->scheduled = true;
  }
  if (post) scheduleDrain();
}

namespace {

// Ends the calling thread's ownership: the next waiting sync() caller, if it is first in
// line, inherits it; otherwise a drain job is scheduled for what is left.
// Returns true when the caller must post a drain job.
bool releaseOwnership(SerialQueue::Impl& q) {
  if (q.items.empty()) {
    q.owned = false;
    return false;
  }
  if (SyncTurn* turn = q.items.front().turn) {
    q.items.pop_front();
    turn->granted = true;  // ownership passes on; `owned` stays true
    q.turnGranted.notify_all();
    return false;
  }
  q.owned = false;
  if (q.scheduled) return false;
  q.scheduled = true;
  return true;
}

// Ends the calling thread's run of the queue's items and lets go of `lock` (the queue's
// mutex); true when what is left must be scheduled.
bool endTurn(SerialQueue::Impl& q, std::unique_lock<std::mutex>& lock) {
  const bool post = releaseOwnership(q);
  lock.unlock();
  return post;
}

void runItem(const DispatchQueue* queue, Item& item) {
  ScopedTaskLocalBindings scope(std::move(item.bindings));
  struct Frame : DispatchQueue {
    using DispatchQueue::RunningFrame;
  };
  Frame::RunningFrame frame(queue);
  item.work();
}

}  // namespace

void SerialQueue::drain() {
  std::unique_lock lock(impl_->mutex);
  impl_->scheduled = false;
  if (impl_->owned) return;  // a sync() caller took over; it schedules what it leaves
  impl_->owned = true;
  for (int budget = Impl::kDrainBudget; budget > 0 && !impl_->items.empty(); --budget) {
    if (impl_->items.front().turn != nullptr) break;
    Item item = std::move(impl_->items.front());
    impl_->items.pop_front();
    lock.unlock();
    runItem(this, item);
    lock.lock();
  }
  if (endTurn(*impl_, lock)) scheduleDrain();
}

void SerialQueue::sync(const std::function<void()>& work) {
  if (isCurrent()) {
    work();
    return;
  }
  std::unique_lock lock(impl_->mutex);
  SyncTurn mine;
  if (!impl_->owned && impl_->items.empty()) {
    impl_->owned = true;  // idle queue: the common case, no bookkeeping needed
    mine.granted = true;
  } else {
    impl_->items.push_back(Item{{}, {}, &mine});
  }
  if (!mine.granted && !impl_->owned) {
    // Nobody runs the queue: run what was posted before this call, in order, on this
    // thread. A sync() caller ahead in line inherits ownership and we wait for our turn.
    impl_->owned = true;
    while (!mine.granted) {
      Item& front = impl_->items.front();
      if (SyncTurn* turn = front.turn) {
        impl_->items.pop_front();
        turn->granted = true;
        if (turn != &mine) {
          impl_->turnGranted.notify_all();
          break;
        }
        continue;
      }
      Item item = std::move(front);
      impl_->items.pop_front();
      lock.unlock();
      runItem(this, item);
      lock.lock();
    }
  }
  impl_->turnGranted.wait(lock, [&] { return mine.granted; });
  lock.unlock();
  {
    RunningFrame frame(this);
    work();
  }
  lock.lock();
  if (endTurn(*impl_, lock)) scheduleDrain();
}

bool SerialQueue::runNowIfIdle(const std::function<void()>& work) {
  if (impl_->target != globalQueue() || isCurrent()) return false;
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->owned || impl_->scheduled || !impl_->items.empty()) return false;
    impl_->owned = true;
  }
  {
    RunningFrame frame(this);
    work();
  }
  std::unique_lock lock(impl_->mutex);
  if (endTurn(*impl_, lock)) scheduleDrain();
  return true;
}

void SerialQueue::scheduleDrain() {
  impl_->target->async([self = std::static_pointer_cast<SerialQueue>(shared_from_this())] { self->drain(); });
}

// ---- RepeatingTimer ---------------------------------------------------------------------

struct RepeatingTimer::State : std::enable_shared_from_this<RepeatingTimer::State> {
  State(std::shared_ptr<DispatchQueue> q, Duration i, Work w)
      : queue(std::move(q)), interval(i), work(std::move(w)), timer(TimerService::shared().context()) {}
  std::shared_ptr<DispatchQueue> queue;
  Duration interval;
  Work work;
  asio::steady_timer timer;  // used only on the timer thread after start
  std::atomic<bool> valid{true};

  void arm() {
    timer.expires_after(interval);
    timer.async_wait([weak = weak_from_this()](const boost::system::error_code& ec) {
      auto self = weak.lock();
      if (ec || !self || !self->valid.load()) return;
      self->queue->async([weak] {
        if (auto state = weak.lock(); state && state->valid.load()) state->work();
      });
      self->arm();
    });
  }
};

std::unique_ptr<RepeatingTimer> RepeatingTimer::schedule(std::shared_ptr<DispatchQueue> queue, Duration interval,
                                                         Work work) {
  auto state = std::make_shared<State>(std::move(queue), interval, carryingBindings(std::move(work)));
  asio::post(TimerService::shared().context(), [state] { state->arm(); });
  return std::unique_ptr<RepeatingTimer>(new RepeatingTimer(std::move(state)));
}

RepeatingTimer::RepeatingTimer(std::shared_ptr<State> state) : state_(std::move(state)) {}

RepeatingTimer::~RepeatingTimer() { invalidate(); }

void RepeatingTimer::invalidate() {
  if (!state_->valid.exchange(false)) return;
  // Cancel on the timer thread, which alone touches the Asio timer; the posted job keeps the
  // state alive until then.
  asio::post(TimerService::shared().context(), [state = state_] { state->timer.cancel(); });
}

bool RepeatingTimer::isValid() const noexcept { return state_->valid.load(); }

// ---- FdWatch ----------------------------------------------------------------------------

namespace platform {

struct FdWatch::State : std::enable_shared_from_this<FdWatch::State> {
  State(std::shared_ptr<DispatchQueue> q, Work w)
      : descriptor(TimerService::shared().context()), queue(std::move(q)), work(std::move(w)) {}
  asio::posix::stream_descriptor descriptor;  // used only on the timer thread after start
  std::shared_ptr<DispatchQueue> queue;
  Work work;
  std::atomic<bool> active{true};
  bool writeWaiting = false;  // on the timer thread

  void runOnQueue(bool rearm) {
    queue->async([self = shared_from_this(), rearm] {
      if (!self->active.load()) return;
      self->work();
      if (!rearm) return;
      asio::post(TimerService::shared().context(), [self] {
        if (self->active.load()) self->arm();
      });
    });
  }

  // On the timer thread. The pending wait and the queued run keep the state alive.
  void arm() {
    descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                          [self = shared_from_this()](const boost::system::error_code& ec) {
                            if (ec || !self->active.load()) return;
                            self->runOnQueue(true);
                          });
  }

  // On the timer thread.
  void armWrite() {
    if (writeWaiting) return;
    writeWaiting = true;
    descriptor.async_wait(asio::posix::stream_descriptor::wait_write,
                          [self = shared_from_this()](const boost::system::error_code& ec) {
                            self->writeWaiting = false;
                            if (!ec && self->active.load()) self->runOnQueue(false);
                          });
  }
};

std::unique_ptr<FdWatch> FdWatch::watchReadable(int fd, std::shared_ptr<DispatchQueue> queue, Work work) {
  auto state = std::make_shared<State>(std::move(queue), carryingBindings(std::move(work)));
  boost::system::error_code ec;
  state->descriptor.assign(fd, ec);
  if (ec) {
    ::close(fd);
    return nullptr;
  }
  asio::post(TimerService::shared().context(), [state] { state->arm(); });
  return std::unique_ptr<FdWatch>(new FdWatch(std::move(state)));
}

FdWatch::FdWatch(std::shared_ptr<State> state) : state_(std::move(state)) {}

FdWatch::~FdWatch() { cancel(); }

void FdWatch::runWhenWritable() {
  if (!state_->active.load()) return;
  asio::post(TimerService::shared().context(), [state = state_] {
    if (state->active.load()) state->armWrite();
  });
}

void FdWatch::cancel() {
  if (!state_->active.exchange(false)) return;
  // The descriptor belongs to the timer thread; closing it there ends the pending wait.
  asio::post(TimerService::shared().context(), [state = state_] {
    boost::system::error_code ignored;
    state->descriptor.close(ignored);
  });
}

}  // namespace platform
}  // namespace kp
