#include "kwqimage/kwq_quality.h"

extern "C" {
const double KWQImageVersionNumber = 1.0;
const unsigned char KWQImageVersionString[] = "@(#)PROGRAM:KWQImage  PROJECT:KWQImage-1\n";
}
