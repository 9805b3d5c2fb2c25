// The main queue and the application notifications on GLib's main loop.
#include "glib_bridge.h"

#include <string>

#include "kp/platform/dispatch.h"
#include "kp/platform/notification_center.h"

namespace weatherapp {
namespace {

gboolean drainMainQueue(GSource* source, GSourceFunc, gpointer) {
  // Not ready again until the next post: a post made while this drain runs (by the work it
  // runs, or by another thread) marks it ready anew, so nothing waits for a later wake-up.
  g_source_set_ready_time(source, -1);
  (void)kp::MainQueue::shared()->runPending();
  return G_SOURCE_CONTINUE;
}

GSourceFuncs kMainQueueFuncs = {
    nullptr,         // prepare: the ready time alone decides
    nullptr,         // check
    drainMainQueue,  // dispatch
    nullptr,         // finalize
    nullptr,        nullptr,
};

}  // namespace

MainQueueSource::MainQueueSource() : source_(g_source_new(&kMainQueueFuncs, sizeof(GSource))) {
  g_source_set_name(source_, "kp::MainQueue");
  g_source_set_priority(source_, G_PRIORITY_DEFAULT);
  g_source_attach(source_, g_main_context_get_thread_default());
  // The handler holds its own reference, so a post racing the destructor finds a valid
  // (destroyed, and then inert) source.
  g_source_ref(source_);
  std::shared_ptr<GSource> held(source_, g_source_unref);
  kp::MainQueue::shared()->setWakeupHandler([held] { g_source_set_ready_time(held.get(), 0); });
  // Work posted before the loop ran (start-up work of the library) is drained at once.
  g_source_set_ready_time(source_, 0);
}

MainQueueSource::~MainQueueSource() {
  kp::MainQueue::shared()->setWakeupHandler({});
  g_source_destroy(source_);
  g_source_unref(source_);
}

ApplicationLifecycle::ApplicationLifecycle() = default;

ApplicationLifecycle::~ApplicationLifecycle() {
  if (memoryMonitorPending_) g_source_remove(memoryMonitorPending_);
  if (window_) g_signal_handlers_disconnect_by_data(window_, this);
  if (memoryMonitor_) {
    g_signal_handlers_disconnect_by_data(memoryMonitor_, this);
    g_object_unref(memoryMonitor_);
  }
}

void ApplicationLifecycle::watch(GtkWindow* window) {
  window_ = window;
  g_signal_connect(window, "notify::is-active", G_CALLBACK(activeChanged), this);
  // Finding the system's memory monitor takes tens of milliseconds (it loads GIO's modules
  // and asks the system bus), so it waits until the first frame is drawn. It signals on the
  // main context of the thread that made it: this one.
  memoryMonitorPending_ = g_idle_add_full(
      G_PRIORITY_LOW,
      [](gpointer self) -> gboolean {
        auto* lifecycle = static_cast<ApplicationLifecycle*>(self);
        lifecycle->memoryMonitor_ = g_memory_monitor_dup_default();
        if (lifecycle->memoryMonitor_) {
          g_signal_connect(lifecycle->memoryMonitor_, "low-memory-warning", G_CALLBACK(memoryWarning), self);
        }
        lifecycle->memoryMonitorPending_ = 0;
        return G_SOURCE_REMOVE;
      },
      this, nullptr);
}

void ApplicationLifecycle::activeChanged(GObject* window, GParamSpec*, gpointer self) {
  auto* lifecycle = static_cast<ApplicationLifecycle*>(self);
  const bool active = gtk_window_is_active(GTK_WINDOW(window));
  if (lifecycle->active_.exchange(active) == active) return;
  kp::NotificationCenter::defaultCenter().post(active ? kp::ApplicationNotifications::kDidBecomeActive
                                                      : kp::ApplicationNotifications::kWillResignActive);
}

void ApplicationLifecycle::memoryWarning(GMemoryMonitor*, GMemoryMonitorWarningLevel, gpointer) {
  kp::NotificationCenter::defaultCenter().post(kp::ApplicationNotifications::kDidReceiveMemoryWarning);
}

std::shared_ptr<void> ApplicationLifecycle::applicationWindow() const {
  if (!window_) return nullptr;
  return {g_object_ref(window_), g_object_unref};
}

tarvix::ApplicationState ApplicationLifecycle::applicationState() const {
  return active_ ? tarvix::ApplicationState::active : tarvix::ApplicationState::inactive;
}

bool ApplicationLifecycle::canOpenURL(std::string_view url) const {
  return url.starts_with("https://") || url.starts_with("http://");
}

void ApplicationLifecycle::open(std::string_view url) { open(url, {}, {}); }

void ApplicationLifecycle::open(std::string_view url, const OpenOptions&, std::function<void(bool)> completion) {
  const bool can = canOpenURL(url) && window_;
  if (can) gtk_show_uri(window_, std::string(url).c_str(), GDK_CURRENT_TIME);
  if (completion) completion(can);
}

}  // namespace weatherapp
