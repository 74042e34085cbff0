#include "platform/media/gst_init.h"

#include <gst/gst.h>

#include <mutex>

namespace kwq::platform {

bool ensureGStreamer(std::string* error) {
  static std::once_flag once;
  static bool ok = false;
  static std::string reason;
  std::call_once(once, [] {
    GError* err = nullptr;
    ok = gst_init_check(nullptr, nullptr, &err);
    if (!ok) reason = err && err->message ? err->message : "GStreamer could not be initialised";
    if (err) g_error_free(err);
  });
  if (!ok && error) *error = reason;
  return ok;
}

}  // namespace kwq::platform
