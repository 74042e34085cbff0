#pragma once

/// @file
/// Everything a host needs: include this one header.

#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"
#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/Log.h"
#include "kwqimage/kwq_quality.h"

// Conversion, geometry and the PNG store.
#include "kwqimage/Color.h"
#include "kwqimage/Detectors.h"
#include "kwqimage/DeviceOrientation.h"
#include "kwqimage/KWQCameraRollHelper.h"
#include "kwqimage/KWQImageDictionary.h"
#include "kwqimage/KWQImagingHelperClass.h"
#include "kwqimage/SampleBuffer.h"
#include "kwqimage/Threads.h"

// The capture engine, its capture layer, layers and queues.
#include "kwqimage/AAMVA.h"
#include "kwqimage/CaptureDevice.h"
#include "kwqimage/CaptureSession.h"
#include "kwqimage/DispatchQueue.h"
#include "kwqimage/KWQCardCapture.h"
#include "kwqimage/KWQVideoHelper.h"
#include "kwqimage/KWQVideoHelperDelegate.h"
#include "kwqimage/Layer.h"
#include "kwqimage/SyntheticCamera.h"

// Views, drawing and the renderer that shows a view tree.
#include "kwqimage/Error.h"
#include "kwqimage/GraphicsContext.h"
#include "kwqimage/KWQProgressCircleView.h"
#include "kwqimage/KWQSimpleCaptureView.h"
#include "kwqimage/Render.h"
#include "kwqimage/Timer.h"
#include "kwqimage/View.h"

/// The library: the capture engine, its sessions and queues, the measures and conversions, the
/// recorder and the views.
namespace kwq {}
