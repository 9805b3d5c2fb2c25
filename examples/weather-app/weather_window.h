// The window: an offline banner, the place (chosen from a list, or the device's location),
// how old the forecast is, the current conditions, the next 24 hours and the next 7 days.
// It only shows what it is given; WeatherApp decides what and when.
//
// Thread safety: main thread only.
#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <optional>
#include <string>

#include "forecast.h"
#include "icons.h"

namespace weatherapp {

class WeatherWindow {
 public:
  // Called when the user picks a place: a place, or nothing for "current location".
  using PlaceChosen = std::function<void(const std::optional<Place>&)>;

  WeatherWindow(GtkApplication* application, IconStore& icons, PlaceChosen placeChosen);
  ~WeatherWindow();
  WeatherWindow(const WeatherWindow&) = delete;
  WeatherWindow& operator=(const WeatherWindow&) = delete;

  [[nodiscard]] GtkWindow* window() const noexcept { return window_; }

  // The place list: `fixed` shows only `place` (given on the command line).
  void showPlace(const Place& place, bool followsLocation, bool fixed);
  void showForecast(const ForecastSnapshot& snapshot);
  // "Updated 5 minutes ago" for the forecast on screen.
  void showAge(const ForecastSnapshot& snapshot);
  // The banner across the top; nothing hides it.
  void showBanner(const std::optional<std::string>& text);
  // A line under the place list (the location cannot be used); nothing hides it.
  void showNote(const std::optional<std::string>& text);
  // Shown instead of a forecast while there is none.
  void showStatus(const std::string& text);

 private:
  static void selectedChanged(GObject* dropDown, GParamSpec* property, gpointer self);
  static void destroyed(GtkWidget* window, gpointer self);
  void rebuildHours(const Forecast& forecast);
  void rebuildDays(const Forecast& forecast);

  IconStore& icons_;
  PlaceChosen placeChosen_;
  GtkWindow* window_;  // a reference of ours
  GtkWidget* banner_;
  GtkWidget* bannerLabel_;
  GtkWidget* places_;  // null once the window is destroyed
  GtkStringList* placeNames_;
  GtkWidget* age_;
  GtkWidget* note_;
  GtkWidget* status_;
  GtkWidget* forecastBox_;
  GtkWidget* currentIcon_;
  GtkWidget* currentTemperature_;
  GtkWidget* currentCondition_;
  GtkWidget* currentDetails_;
  GtkWidget* hours_;
  GtkWidget* days_;
  bool settingPlaces_ = false;
  bool placesFixed_ = false;
};

}  // namespace weatherapp
