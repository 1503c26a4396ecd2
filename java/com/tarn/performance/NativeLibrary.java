package com.tarn.performance;

/** Remembers how the library is to be loaded until {@link TarnBoosterJNI} is first used. */
final class NativeLibrary {
    private static volatile LibraryLoader loader;

    private NativeLibrary() {}

    /** @param loader null for System.loadLibrary */
    static void useLoader(LibraryLoader loader) {
        NativeLibrary.loader = loader;
    }

    /** Called once, while TarnBoosterJNI is initialised. Holds nothing of the application's afterwards. */
    static void load() {
        LibraryLoader chosen = loader;
        loader = null;
        if (chosen == null) {
            System.loadLibrary("tarnbooster");
        } else {
            chosen.load("tarnbooster");
        }
    }
}
