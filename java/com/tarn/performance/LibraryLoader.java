package com.tarn.performance;

import org.jetbrains.annotations.Blocking;
import org.jetbrains.annotations.NotNull;

/**
 * How the native library comes into the process, see {@link BoosterConfig.Builder#libraryLoader}. Unless one
 * is given it is {@link System#loadLibrary}.
 */
public interface LibraryLoader {
    /**
     * Loads the library. Called at most once in a process, on the thread "TarnBooster", so it may take its
     * time. Whatever it throws makes the booster {@linkplain BoosterCodes#CONNECTION_UNAVAILABLE unavailable}
     * and goes no further.
     *
     * <p>It must load for the class loader that {@link TarnBoosterJNI} belongs to. It is not called when
     * that class is in use already, by {@link CpuLoadTrace} for example; and once it has failed, nothing else
     * loads the library in this process.
     *
     * @param name the library's name without prefix and suffix, as {@link System#loadLibrary} takes it
     */
    @Blocking void load(@NotNull String name);
}
