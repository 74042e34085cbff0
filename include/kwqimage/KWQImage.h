#pragma once

// Everything a host needs: include this one header.

#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"
#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/Log.h"
#include "kwqimage/kwq_quality.h"
