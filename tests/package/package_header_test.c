/* A program in C that uses the library through the header of the Android package. */
#include <stdio.h>
#include <string.h>
#include <tarnbooster/tarnbooster.h>

static int priorityOfLast = -1;

static int keepPriority(int priority, const char* tag, const char* format, ...) {
  priorityOfLast = strcmp(tag, tarnbooster_tag) == 0 && format != NULL ? priority : -1;
  return 0;
}

int main(void) {
  int length = -1;
  tarnbooster_log = keepPriority;
  c2Java_OnData(NULL, 1, 0, -1, 0, 0, NULL, 0);
  const int isArrayEmpty = jintArrayToInts(NULL, NULL, &length) == NULL && length == 0;
  const int isWithoutMachine = tarnbooster_jvm == NULL && tarnbooster_class == NULL;
  /* These want an environment; that they link is enough here. */
  char* (*volatile copy)(JNIEnv*, jstring) = jstringToChars;
  int (*volatile registration)(JNIEnv*) = register_com_tarn_performance_TarnBoosterJNI;
  printf("priority %d, empty array %d, no machine %d\n", priorityOfLast, isArrayEmpty, isWithoutMachine);
  return !(priorityOfLast == 6 && isArrayEmpty && isWithoutMachine && copy != NULL && registration != NULL);
}
