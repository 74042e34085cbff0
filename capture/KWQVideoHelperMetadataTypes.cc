// Metadata output and type selection: the metadata output is made on first use, `metaObjects`
// lists the requested types in the order they were enabled, and the three support switches
// are views of that list.

#include <algorithm>

#include "capture/KWQVideoHelperState.h"

namespace kwq {
namespace {

bool contains(const std::vector<std::string>& list, std::string_view item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

}  // namespace

void KWQVideoHelper::UpdateAVCaptureMetadataOutput(std::string_view metadataObjectType,
                                                   bool enabled) {
  State& d = *d_;
  // Types change only while the session is stopped; requests while it runs are dropped.
  if (!d.session || d.session->isRunning()) return;

  std::shared_ptr<MetadataOutput> output = d.get(&State::metaOutput);
  if (!output) {
    output = MetadataOutput::create();
    d.set(&State::metaOutput, output);
    // An output the session refuses stays stored, unattached (it then offers no types).
    if (!d.session->canAddOutput(output)) return;
    // Faces and codes arrive on the main queue (a handle that does not own the queue).
    output->setMetadataObjectsDelegate(
        std::static_pointer_cast<CaptureMetadataOutputObjectsDelegate>(shared_from_this()),
        std::shared_ptr<DispatchQueue>(std::shared_ptr<void>(), &DispatchQueue::main()));
    d.session->addOutput(output);
  }

  std::vector<std::string> types;
  {
    std::lock_guard lock(d.mutex);
    if (enabled) {
      if (!contains(d.metaObjects, metadataObjectType) &&
          contains(output->availableMetadataObjectTypes(), metadataObjectType))
        d.metaObjects.emplace_back(metadataObjectType);
    } else {
      std::erase(d.metaObjects, metadataObjectType);
    }
    types = d.metaObjects;
  }
  output->setMetadataObjectTypes(types);
  if (auto connection = output->connectionWithMediaType(AVMediaTypeMetadata))
    connection->setEnabled(true);
}

std::vector<std::string> KWQVideoHelper::metaObjects() const {
  return d_->get(&State::metaObjects);
}

bool KWQVideoHelper::faceFindSupport() const {
  return contains(metaObjects(), AVMetadataObjectTypeFace);
}
void KWQVideoHelper::setFaceFindSupport(bool support) {
  UpdateAVCaptureMetadataOutput(AVMetadataObjectTypeFace, support);
}
bool KWQVideoHelper::pdf417Support() const {
  return contains(metaObjects(), AVMetadataObjectTypePDF417Code);
}
void KWQVideoHelper::setPdf417Support(bool support) {
  UpdateAVCaptureMetadataOutput(AVMetadataObjectTypePDF417Code, support);
}
bool KWQVideoHelper::qrCodeSupport() const {
  return contains(metaObjects(), AVMetadataObjectTypeQRCode);
}
void KWQVideoHelper::setQrCodeSupport(bool support) {
  UpdateAVCaptureMetadataOutput(AVMetadataObjectTypeQRCode, support);
}

}  // namespace kwq
