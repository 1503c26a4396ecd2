// The floor of loading: nothing, with the library's dependencies.
extern "C" __attribute__((visibility("default"))) int JNI_OnLoad(void* /*vm*/, void* /*reserved*/) {
  return 0x10006;
}
