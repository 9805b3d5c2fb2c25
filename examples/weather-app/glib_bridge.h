// The library's main queue and application notifications, driven by GLib's main loop.
//
// MainQueueSource drains kp::MainQueue from the GLib main context of the calling thread.
// It is a GSource that the queue's wake-up handler marks ready (g_source_set_ready_time may
// be called from any thread and wakes the context), so the loop sleeps until the library
// posts something: there is no polling timer. Posts that arrive while the loop is busy
// coalesce into one drain.
//
// ApplicationLifecycle posts what a phone's application object would: did-become-active
// and will-resign-active as the window gains and loses the focus, and the memory warning
// when GLib's memory monitor warns. It is also the tarvix::Application that the library's
// services look up (the cache's clean-up timer runs while the application is active).
//
// Thread safety: make and destroy both on the thread that runs the GLib main context (the
// library's main thread). The queue's wake-up may come from any thread.
#pragma once

#include <gtk/gtk.h>

#include <atomic>
#include <memory>

#include "tarvix/application.h"

namespace weatherapp {

class MainQueueSource {
 public:
  MainQueueSource();
  ~MainQueueSource();
  MainQueueSource(const MainQueueSource&) = delete;
  MainQueueSource& operator=(const MainQueueSource&) = delete;

 private:
  GSource* source_;
};

class ApplicationLifecycle final : public tarvix::Application {
 public:
  ApplicationLifecycle();
  ~ApplicationLifecycle() override;

  // Follows `window`'s focus from now on. REQUIRES: called once, on the main thread.
  void watch(GtkWindow* window);

  [[nodiscard]] std::shared_ptr<void> applicationWindow() const override;
  [[nodiscard]] tarvix::ApplicationState applicationState() const override;
  [[nodiscard]] tarvix::InterfaceOrientation statusBarOrientation() const override {
    return tarvix::InterfaceOrientation::unknown;
  }
  [[nodiscard]] bool isIdleTimerDisabled() const override { return idleTimerDisabled_; }
  void setIdleTimerDisabled(bool disabled) override { idleTimerDisabled_ = disabled; }
  [[nodiscard]] bool canOpenURL(std::string_view url) const override;
  void open(std::string_view url) override;
  void open(std::string_view url, const OpenOptions& options, std::function<void(bool)> completion) override;

 private:
  static void activeChanged(GObject* window, GParamSpec* property, gpointer self);
  static void memoryWarning(GMemoryMonitor* monitor, GMemoryMonitorWarningLevel level, gpointer self);

  GtkWindow* window_ = nullptr;  // weak: GTK owns the window
  GMemoryMonitor* memoryMonitor_ = nullptr;
  guint memoryMonitorPending_ = 0;
  std::atomic<bool> active_{false};
  bool idleTimerDisabled_ = false;
};

}  // namespace weatherapp
