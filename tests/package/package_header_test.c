/* A program in C that uses the library through the header that the Android package brings along: the names
 * are there, link, and do what the header says. Anything else is tested elsewhere. */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <tarnbooster/tarnbooster.h>

static char line[256];

static int keepLine(int priority, const char* tag, const char* format, ...) {
  const int used = snprintf(line, sizeof(line), "%d %s ", priority, tag);
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line + used, sizeof(line) - (size_t)used, format, arguments);
  va_end(arguments);
  return 0;
}

int main(void) {
  logFunc = keepLine;
  c2Java_OnData(NULL, 1, 0, -1, 0, 0, NULL, 0);
  if (strncmp(line, "6 TARNBOOSTER [C2Java.cpp,c2Java_OnData:", 40) != 0 ||
      strstr(line, "\"Not init env\"") == NULL) {
    fprintf(stderr, "not the line of a missing environment: %s\n", line);
    return 1;
  }
  int length = -1;
  if (jintArrayToInts(NULL, NULL, &length) != NULL || length != 0) {
    fprintf(stderr, "a null array is not an empty one: %d\n", length);
    return 1;
  }
  if (g_jvm != NULL || g_classUdpEngine != NULL) {
    fprintf(stderr, "a library that no virtual machine loaded has one\n");
    return 1;
  }
  /* These want an environment; that they link is enough here. */
  char* (*volatile copy)(JNIEnv*, jstring) = jstringToChars;
  int (*volatile registration)(JNIEnv*) = register_com_tarn_performance_TarnBoosterJNI;
  return copy == NULL || registration == NULL;
}
