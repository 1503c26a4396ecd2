// The package's header declares what the library defines: a difference in a type does not compile.
#include <tarnbooster/tarnbooster.h>

#include <type_traits>

#include "base/log.h"
#include "bridge/C2Java.h"
#include "bridge/com_tarn_performance_TarnBoosterJNI.h"

static_assert(std::is_same_v<decltype(tarnbooster_tag), decltype(TAG)>);
static_assert(std::is_same_v<decltype(tarnbooster_log), decltype(logFunc)>);
static_assert(std::is_same_v<decltype(tarnbooster_jvm), decltype(g_jvm)>);
static_assert(std::is_same_v<decltype(tarnbooster_class), decltype(g_classUdpEngine)>);
