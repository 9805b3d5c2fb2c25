// The notification centre: a copy-on-post list of observers.
#include "kp/platform/notification_center.h"

#include <algorithm>
#include <atomic>

#include "platform/no_destructor.h"

namespace kp {

struct NotificationCenter::Observation::Entry {
  std::string name;
  const void* sender;
  std::shared_ptr<DispatchQueue> queue;
  NotificationCenter::Handler handler;
  std::atomic<bool> active{true};
};

NotificationCenter::Observation::Observation(NotificationCenter* center, std::shared_ptr<Entry> entry)
    : center_(center), entry_(std::move(entry)) {}

NotificationCenter::Observation::~Observation() { center_->remove(entry_); }

NotificationCenter::NotificationCenter() = default;
NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  static internal::NoDestructor<NotificationCenter> center;
  return *center;
}

NotificationCenter::ObservationToken NotificationCenter::addObserver(std::string_view name, const void* sender,
                                                                     std::shared_ptr<DispatchQueue> queue,
                                                                     Handler handler) {
  auto entry = std::make_shared<Observation::Entry>();
  entry->name = std::string(name);
  entry->sender = sender;
  entry->queue = std::move(queue);
  entry->handler = std::move(handler);
  {
    std::lock_guard lock(mutex_);
    entries_.push_back(entry);
  }
  return ObservationToken(new Observation(this, std::move(entry)));
}

void NotificationCenter::removeObserver(ObservationToken& token) { token.reset(); }

void NotificationCenter::remove(const std::shared_ptr<Observation::Entry>& entry) {
  entry->active.store(false);
  std::lock_guard lock(mutex_);
  std::erase(entries_, entry);
}

void NotificationCenter::post(Notification notification) {
  std::vector<std::shared_ptr<Observation::Entry>> matching;
  {
    std::lock_guard lock(mutex_);
    for (const auto& entry : entries_) {
      if (entry->name == notification.name && (entry->sender == nullptr || entry->sender == notification.sender)) {
        matching.push_back(entry);
      }
    }
  }
  if (matching.empty()) return;
  auto shared = std::make_shared<const Notification>(std::move(notification));
  for (const auto& entry : matching) {
    if (!entry->active.load()) continue;
    if (entry->queue) {
      entry->queue->async([entry, shared] {
        if (entry->active.load()) entry->handler(*shared);
      });
    } else {
      entry->handler(*shared);
    }
  }
}

}  // namespace kp
