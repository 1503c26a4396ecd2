// The package's header declares what the library defines: a difference in a type does not compile.
#include <tarnbooster/tarnbooster.h>

#include "base/log.h"
#include "bridge/C2Java.h"
#include "bridge/com_tarn_performance_TarnBoosterJNI.h"
