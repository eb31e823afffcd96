// The public header in C++ without OpenCV in reach.
#include "velostrix/uncalibration.h"
