// The package's header declares what the library defines: a difference in a type does not compile.
#include <tarnbooster/tarnbooster.h>

#include "base/log.h"
#include "bridge/C2Java.h"
#include "bridge/com_tarn_performance_TarnBoosterJNI.h"

[[maybe_unused]] decltype(TAG)* const g_tag = &tarnbooster_tag;
[[maybe_unused]] decltype(logFunc)* const g_log = &tarnbooster_log;
[[maybe_unused]] decltype(g_jvm)* const g_machine = &tarnbooster_jvm;
[[maybe_unused]] decltype(g_classUdpEngine)* const g_class = &tarnbooster_class;
