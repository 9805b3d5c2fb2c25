// The window's widgets.
#include "weather_window.h"

#include <algorithm>

#include "places.h"
#include "text.h"

namespace weatherapp {
namespace {

constexpr std::size_t kHoursShown = 24;
constexpr std::size_t kDaysShown = 7;

constexpr const char* kStyle = R"(
.banner { background: #fff3cd; color: #664d03; border-bottom: 1px solid #ffe69c; padding: 8px 16px; font-weight: bold; }
.temperature { font-size: 44pt; font-weight: bold; }
.condition { font-size: 16pt; }
.heading { font-size: 13pt; font-weight: bold; margin-top: 12px; }
.hour { padding: 4px 10px; }
.dim { opacity: 0.7; }
)";

GtkWidget* label(const std::string& text, const char* cssClass = nullptr, float xalign = 0) {
  GtkWidget* widget = gtk_label_new(text.c_str());
  gtk_label_set_xalign(GTK_LABEL(widget), xalign);
  if (cssClass) gtk_widget_add_css_class(widget, cssClass);
  return widget;
}

void removeChildren(GtkWidget* container) {
  while (GtkWidget* child = gtk_widget_get_first_child(container)) {
    if (GTK_IS_BOX(container)) {
      gtk_box_remove(GTK_BOX(container), child);
    } else {
      gtk_grid_remove(GTK_GRID(container), child);
    }
  }
}

void setText(GtkWidget* labelWidget, const std::string& text) {
  gtk_label_set_text(GTK_LABEL(labelWidget), text.c_str());
}

}  // namespace

WeatherWindow::WeatherWindow(GtkApplication* application, IconStore& icons, PlaceChosen placeChosen)
    : icons_(icons), placeChosen_(std::move(placeChosen)) {
  GtkCssProvider* css = gtk_css_provider_new();
  gtk_css_provider_load_from_data(css, kStyle, -1);
  gtk_style_context_add_provider_for_display(gdk_display_get_default(), GTK_STYLE_PROVIDER(css),
                                             GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  g_object_unref(css);

  window_ = GTK_WINDOW(gtk_application_window_new(application));
  // Kept until this object goes, which may be after GTK destroyed the window (closed).
  g_object_ref(window_);
  g_signal_connect(window_, "destroy", G_CALLBACK(destroyed), this);
  gtk_window_set_title(window_, tr("Weather").c_str());
  gtk_window_set_default_size(window_, 760, 620);

  GtkWidget* root = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  gtk_window_set_child(window_, root);

  banner_ = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
  gtk_widget_add_css_class(banner_, "banner");
  bannerLabel_ = label("");
  gtk_box_append(GTK_BOX(banner_), bannerLabel_);
  gtk_widget_set_visible(banner_, false);
  gtk_box_append(GTK_BOX(root), banner_);

  GtkWidget* body = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
  gtk_widget_set_margin_start(body, 16);
  gtk_widget_set_margin_end(body, 16);
  gtk_widget_set_margin_top(body, 12);
  gtk_widget_set_margin_bottom(body, 12);
  gtk_box_append(GTK_BOX(root), body);

  GtkWidget* header = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 12);
  placeNames_ = gtk_string_list_new(nullptr);
  places_ = gtk_drop_down_new(G_LIST_MODEL(placeNames_), nullptr);
  g_signal_connect(places_, "notify::selected", G_CALLBACK(selectedChanged), this);
  gtk_box_append(GTK_BOX(header), places_);
  age_ = label("", "dim", 1);
  gtk_widget_set_hexpand(age_, true);
  gtk_box_append(GTK_BOX(header), age_);
  gtk_box_append(GTK_BOX(body), header);

  note_ = label("", "dim");
  gtk_widget_set_visible(note_, false);
  gtk_box_append(GTK_BOX(body), note_);

  status_ = label(tr("Loading the forecast…"), "condition");
  gtk_box_append(GTK_BOX(body), status_);

  forecastBox_ = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
  gtk_widget_set_visible(forecastBox_, false);
  gtk_box_append(GTK_BOX(body), forecastBox_);

  GtkWidget* current = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 16);
  currentIcon_ = gtk_image_new();
  gtk_image_set_pixel_size(GTK_IMAGE(currentIcon_), 96);
  gtk_box_append(GTK_BOX(current), currentIcon_);
  GtkWidget* now = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
  currentTemperature_ = label("", "temperature");
  currentCondition_ = label("", "condition");
  currentDetails_ = label("", "dim");
  gtk_box_append(GTK_BOX(now), currentTemperature_);
  gtk_box_append(GTK_BOX(now), currentCondition_);
  gtk_box_append(GTK_BOX(now), currentDetails_);
  gtk_box_append(GTK_BOX(current), now);
  gtk_box_append(GTK_BOX(forecastBox_), current);

  gtk_box_append(GTK_BOX(forecastBox_), label(tr("Next 24 hours"), "heading"));
  GtkWidget* scroller = gtk_scrolled_window_new();
  gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scroller), GTK_POLICY_AUTOMATIC, GTK_POLICY_NEVER);
  hours_ = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
  gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scroller), hours_);
  gtk_box_append(GTK_BOX(forecastBox_), scroller);

  gtk_box_append(GTK_BOX(forecastBox_), label(tr("Next 7 days"), "heading"));
  days_ = gtk_grid_new();
  gtk_grid_set_column_spacing(GTK_GRID(days_), 18);
  gtk_grid_set_row_spacing(GTK_GRID(days_), 4);
  gtk_box_append(GTK_BOX(forecastBox_), days_);
}

WeatherWindow::~WeatherWindow() {
  destroyed(GTK_WIDGET(window_), this);
  g_signal_handlers_disconnect_by_data(window_, this);
  g_object_unref(window_);
}

void WeatherWindow::destroyed(GtkWidget*, gpointer self) {
  // Taking the list apart changes its selection, which is nobody's choice.
  auto* window = static_cast<WeatherWindow*>(self);
  if (window->places_) g_signal_handlers_disconnect_by_data(window->places_, window);
  window->places_ = nullptr;
}

void WeatherWindow::showPlace(const Place& place, bool followsLocation, bool fixed) {
  settingPlaces_ = true;
  placesFixed_ = fixed;
  const guint count = g_list_model_get_n_items(G_LIST_MODEL(placeNames_));
  std::vector<std::string> names;
  guint selected = 0;
  if (fixed) {
    names.push_back(place.name);
  } else {
    names.push_back(followsLocation ? place.name : tr("Current location"));
    const auto choices = fixedPlaces();
    for (std::size_t i = 0; i < choices.size(); ++i) {
      names.push_back(choices[i].name);
      if (!followsLocation && choices[i].name == place.name) selected = static_cast<guint>(i + 1);
    }
  }
  std::vector<const char*> pointers;
  for (const auto& name : names) pointers.push_back(name.c_str());
  pointers.push_back(nullptr);
  gtk_string_list_splice(placeNames_, 0, count, pointers.data());
  gtk_drop_down_set_selected(GTK_DROP_DOWN(places_), selected);
  gtk_widget_set_sensitive(places_, !fixed);
  settingPlaces_ = false;
}

void WeatherWindow::selectedChanged(GObject* dropDown, GParamSpec*, gpointer self) {
  auto* window = static_cast<WeatherWindow*>(self);
  if (window->settingPlaces_ || window->placesFixed_ || !window->placeChosen_ || !window->places_) return;
  const guint selected = gtk_drop_down_get_selected(GTK_DROP_DOWN(dropDown));
  const auto choices = fixedPlaces();
  if (selected == 0) {
    window->placeChosen_(std::nullopt);
  } else if (selected <= choices.size()) {
    window->placeChosen_(choices[selected - 1]);
  }
}

void WeatherWindow::showForecast(const ForecastSnapshot& snapshot) {
  const Forecast& forecast = snapshot.forecast;
  const auto& now = forecast.current;
  setText(currentTemperature_, temperature(now.temperature));
  setText(currentCondition_, conditionText(now.condition));
  setText(currentDetails_, tr("Feels like {0}", temperature(now.apparentTemperature)) + "  ·  " +
                               tr("Wind {0}", wind(now.windSpeed, now.windDirection)) + "  ·  " +
                               tr("Humidity {0}", percent(now.humidity)));
  gtk_image_clear(GTK_IMAGE(currentIcon_));
  icons_.show(GTK_IMAGE(currentIcon_), now.condition);
  rebuildHours(forecast);
  rebuildDays(forecast);
  showAge(snapshot);
  gtk_widget_set_visible(status_, false);
  gtk_widget_set_visible(forecastBox_, true);
}

void WeatherWindow::rebuildHours(const Forecast& forecast) {
  removeChildren(hours_);
  // The hours from the current one on: the service's list starts at the hour it was made.
  const kp::Date hourAgo = forecast.current.time.addingTimeInterval(-3600);
  std::size_t shown = 0;
  for (const auto& hour : forecast.hourly) {
    if (hour.time <= hourAgo) continue;
    if (shown++ == kHoursShown) break;
    GtkWidget* column = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
    gtk_widget_add_css_class(column, "hour");
    gtk_box_append(GTK_BOX(column), label(hourOf(hour.time), "dim", 0.5F));
    GtkWidget* icon = gtk_image_new();
    gtk_image_set_pixel_size(GTK_IMAGE(icon), 32);
    icons_.show(GTK_IMAGE(icon), hour.condition);
    gtk_box_append(GTK_BOX(column), icon);
    gtk_box_append(GTK_BOX(column), label(temperature(hour.temperature), nullptr, 0.5F));
    gtk_box_append(GTK_BOX(column), label(percent(hour.precipitationProbability), "dim", 0.5F));
    gtk_box_append(GTK_BOX(hours_), column);
  }
}

void WeatherWindow::rebuildDays(const Forecast& forecast) {
  removeChildren(days_);
  const std::size_t count = std::min(forecast.daily.size(), kDaysShown);
  for (std::size_t i = 0; i < count; ++i) {
    const auto& day = forecast.daily[i];
    const int row = static_cast<int>(i);
    gtk_grid_attach(GTK_GRID(days_), label(dayOf(day.date)), 0, row, 1, 1);
    GtkWidget* icon = gtk_image_new();
    gtk_image_set_pixel_size(GTK_IMAGE(icon), 24);
    icons_.show(GTK_IMAGE(icon), day.condition);
    gtk_grid_attach(GTK_GRID(days_), icon, 1, row, 1, 1);
    gtk_grid_attach(GTK_GRID(days_), label(conditionText(day.condition)), 2, row, 1, 1);
    gtk_grid_attach(GTK_GRID(days_),
                    label(temperature(day.temperatureMin) + " / " + temperature(day.temperatureMax), nullptr, 1), 3,
                    row, 1, 1);
    gtk_grid_attach(GTK_GRID(days_), label(percent(day.precipitationProbability), "dim", 1), 4, row, 1, 1);
  }
}

void WeatherWindow::showAge(const ForecastSnapshot& snapshot) {
  setText(age_, tr("Updated {0}", ago(snapshot.updated())));
}

void WeatherWindow::showBanner(const std::optional<std::string>& text) {
  if (text) setText(bannerLabel_, *text);
  gtk_widget_set_visible(banner_, text.has_value());
}

void WeatherWindow::showNote(const std::optional<std::string>& text) {
  if (text) setText(note_, *text);
  gtk_widget_set_visible(note_, text.has_value());
}

void WeatherWindow::showStatus(const std::string& text) {
  setText(status_, text);
  gtk_widget_set_visible(status_, !gtk_widget_get_visible(forecastBox_));
}

}  // namespace weatherapp
