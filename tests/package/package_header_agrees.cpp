// The package's header declares what the library defines: a difference in a type does not compile.
#include <tarnbooster/tarnbooster.h>

#include "C2Java.h"
#include "com_tarn_performance_TarnBoosterJNI.h"
#include "log.h"
