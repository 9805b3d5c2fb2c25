// The DNS share, transports and their pool, and the driver threads of the session layer.
#include "request/session/transport.h"

#include <algorithm>
#include <iterator>
#include <thread>

#include "platform/no_destructor.h"
#include "platform/openssl_lifetime.h"

namespace kp::internal {

// MARK: - DNS share

DnsShare::DnsShare() {
  keepOpenSslUntilExit();
  curl_global_init(CURL_GLOBAL_DEFAULT);
  share_ = curl_share_init();
  curl_share_setopt(share_, CURLSHOPT_LOCKFUNC, &DnsShare::lock);
  curl_share_setopt(share_, CURLSHOPT_UNLOCKFUNC, &DnsShare::unlock);
  curl_share_setopt(share_, CURLSHOPT_USERDATA, this);
  curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
}

DnsShare& DnsShare::instance() {
  static NoDestructor<DnsShare> share;
  return *share;
}

void DnsShare::lock(CURL*, curl_lock_data data, curl_lock_access, void* user) {
  static_cast<DnsShare*>(user)->mutexes_[static_cast<std::size_t>(data) % kLocks].lock();
}

void DnsShare::unlock(CURL*, curl_lock_data data, void* user) {
  static_cast<DnsShare*>(user)->mutexes_[static_cast<std::size_t>(data) % kLocks].unlock();
}

// MARK: - Transports

Transport& Transport::operator=(Transport&& other) noexcept {
  if (this != &other) {
    close();
    multi = std::exchange(other.multi, nullptr);
    spareHandles = std::exchange(other.spareHandles, {});
    idleSince = other.idleSince;
  }
  return *this;
}

Transport Transport::make() {
  Transport transport;
  transport.multi = curl_multi_init();
  return transport;
}

void Transport::close() noexcept {
  for (CURL* easy : spareHandles) curl_easy_cleanup(easy);
  spareHandles.clear();
  if (multi) curl_multi_cleanup(multi);
  multi = nullptr;
}

TransportPool& TransportPool::instance() {
  static NoDestructor<TransportPool> pool;
  return *pool;
}

Transport TransportPool::acquire() {
  std::vector<Transport> expired;
  Transport transport;
  {
    MutexLock lock(mutex_);
    takeExpired(Clock::now() - kIdleConnectionLifetime, expired);
    if (!idle_.empty()) {
      transport = std::move(idle_.back());
      idle_.pop_back();
    }
  }
  expired.clear();  // closes them, outside the lock
  return transport.multi ? std::move(transport) : Transport::make();
}

void TransportPool::release(Transport transport) {
  transport.idleSince = Clock::now();
  {
    MutexLock lock(mutex_);
    if (idle_.size() < kCapacity) {
      idle_.push_back(std::move(transport));
    }
  }
  // A transport the pool had no room for closes here, outside the lock.
}

void TransportPool::closeIdle(Clock::duration age) {
  std::vector<Transport> expired;
  {
    MutexLock lock(mutex_);
    takeExpired(Clock::now() - age, expired);
  }
}

void TransportPool::takeExpired(Clock::time_point idleBefore, std::vector<Transport>& out) {
  auto expired =
      std::stable_partition(idle_.begin(), idle_.end(), [&](const Transport& t) { return t.idleSince > idleBefore; });
  std::move(expired, idle_.end(), std::back_inserter(out));
  idle_.erase(expired, idle_.end());
}

// MARK: - Driver threads

DriverThreads& DriverThreads::instance() {
  static NoDestructor<DriverThreads> threads;
  return *threads;
}

void DriverThreads::run(std::function<void()> driver) {
  bool wakeWaiting = false;
  {
    MutexLock lock(mutex_);
    drivers_.push_back(std::move(driver));
    wakeWaiting = waiting_ >= drivers_.size();
  }
  if (wakeWaiting) {
    available_.notify_one();
    return;
  }
  std::thread([this] { serve(); }).detach();
}

void DriverThreads::serve() {
  MutexLock lock(mutex_);
  for (;;) {
    ++waiting_;
    const auto deadline = Clock::now() + kIdleLifetime;
    bool got = true;
    while (drivers_.empty() && got) got = lock.waitUntil(available_, deadline) || !drivers_.empty();
    --waiting_;
    if (!got) {
      lock.unlock();
      // The last pooled connections may have been left by this thread's last session.
      TransportPool::instance().closeIdle(kIdleLifetime);
      return;
    }
    auto driver = std::move(drivers_.front());
    drivers_.pop_front();
    lock.unlock();
    driver();
    driver = nullptr;
    lock.lock();
  }
}

}  // namespace kp::internal
