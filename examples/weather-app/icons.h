// The weather icons, loaded through the library's image requests from the weather
// service ("<base>/icons/<condition>.png") and kept by its cache, so that they are read from
// disk on the next start and shown offline.
//
// Each condition is asked for once per run; images waiting for it get it when it arrives.
// Nothing is asked for until startLoading(): the app calls it once its first frame is on
// screen, so that reading and decoding icons does not delay that frame.
// A condition that is not a plain word is never put into a URL, and an icon that does not
// load leaves its image empty (the condition is written beside it anyway).
//
// Thread safety: main thread only.
#pragma once

#include <gtk/gtk.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kp/request/image_request.h"

namespace weatherapp {

class IconStore {
 public:
  explicit IconStore(std::string baseUrl);
  ~IconStore();
  IconStore(const IconStore&) = delete;
  IconStore& operator=(const IconStore&) = delete;

  // Shows the icon of `condition` in `image` now, or once it has loaded.
  void show(GtkImage* image, const std::string& condition);
  // Loads the icons asked for so far, and from now on each as it is asked for.
  void startLoading();

 private:
  struct Entry {
    GdkTexture* texture = nullptr;  // owned
    std::shared_ptr<kp::ImageRequest> request;
    std::vector<GtkImage*> waiting;  // each holds a reference until served
    bool failed = false;
  };
  void load(const std::string& condition, Entry& entry);
  void loaded(const std::string& condition, const kp::Image* image);

  std::string baseUrl_;
  bool loading_ = false;
  std::map<std::string, Entry> entries_;
};

}  // namespace weatherapp
