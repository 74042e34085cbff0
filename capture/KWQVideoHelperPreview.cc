// The view a host receives to show the engine's preview.

#include "capture/KWQVideoHelperState.h"
#include "kwqimage/KWQVideoHelper.h"

namespace kwq {

std::shared_ptr<View> KWQVideoHelper::getPreviewView(Rect frame, bool withCenterBox) {
  // The centre box is attached to (or taken off) the preview before the preview moves.
  setShowCenterBox(withCenterBox);
  auto view = View::create(frame);
  view->layer()->setMasksToBounds(false);
  const auto& preview = d_->previewLayer;
  if (!preview) return view;
  preview->setBackgroundColor(Color::blackColor());
  preview->setFrame(view->layer()->bounds());
  // Taken from the previous view, if any: only the newest view shows the picture.
  view->layer()->addSublayer(preview);
  return view;
}

}  // namespace kwq
