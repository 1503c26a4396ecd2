package com.tarn.performance;

import java.io.Closeable;
import org.jetbrains.annotations.Blocking;
import org.jetbrains.annotations.NotNull;
import org.jetbrains.annotations.Nullable;

/**
 * Measures how much CPU work one thread of this process does between {@link #start} and {@link #stop},
 * weighted by the clock frequency of the CPUs it runs on.
 *
 * <pre>{@code
 * try (CpuLoadTrace trace = CpuLoadTrace.startOrNull(tid, 100)) {
 *     work();
 *     if (trace != null) {
 *         double cpuSeconds = trace.stop().secondsAt(2000000);  // as if on a CPU of 2 GHz
 *     }
 * }
 * }</pre>
 *
 * <p>What a period costs: each wakes the sampling thread once, which reads two small files. Some 30 µs of CPU
 * time on a busy desktop, so at 100 ms less than a thousandth of one CPU; and {@link #stop} waits for the end
 * of the running period.
 *
 * <p>What the measurement can and cannot tell:
 *
 * <ul>
 *   <li>The sum is kept in 32 bits and wraps: at 2 GHz and 100 ticks per second after 10.7 seconds of CPU
 *       time. Trace for shorter than that, or trace again and again.
 *   <li>All ticks since the sample before are charged at the current frequency of the CPU that the thread
 *       ran on last. Ticks after the last sample are not counted, so the period bounds what is lost.
 *   <li>On a machine that does not tell its CPU frequency (no {@code cpufreq} in {@code /sys}) every
 *       frequency counts as -1 kHz: the sum is then the ticks, negative, and {@code secondsAt(-1)} gives
 *       seconds of CPU time.
 *   <li>A thread whose name holds blanks is not measured or measured wrongly.
 * </ul>
 *
 * <p>Any thread may call the methods, several at once.
 */
public final class CpuLoadTrace implements Closeable {
    /** The longest period, milliseconds: the sampler's pause is counted in microseconds in 32 bits. */
    public static final int MAX_PERIOD_MS = 4294967;

    private final int handle;
    private final long startNanos;
    private CpuLoad load; // guarded by this; null while the trace runs

    private CpuLoadTrace(int handle) {
        this.handle = handle;
        this.startNanos = System.nanoTime();
    }

    /**
     * Starts a trace with a sampling thread of its own.
     *
     * @param tid the kernel's id of a thread of this process, see {@link TarnBooster#currentThreadId}
     * @param periodMs sampling period, milliseconds, 0 to {@link #MAX_PERIOD_MS}. 0 samples without pause
     *     and keeps one CPU busy.
     * @return the running trace; the caller stops or closes it
     * @throws IllegalArgumentException if the period is negative or too long
     * @throws IllegalStateException if the library gives no handle: there is no such thread in this
     *     process, the machine shows no CPU directories or 128 of them and more, or the sampling thread
     *     cannot be made
     * @throws LinkageError if the library cannot be loaded
     */
    @Blocking
    public static @NotNull CpuLoadTrace start(int tid, int periodMs) {
        int handle = startedHandle(tid, periodMs);
        if (handle == 0) {
            throw new IllegalStateException("thread " + tid + " cannot be traced");
        }
        return new CpuLoadTrace(handle);
    }

    /**
     * Starts a trace where that is possible: with try-with-resources, {@code null} closes by itself.
     *
     * @param tid as for {@link #start}
     * @param periodMs as for {@link #start}
     * @return the running trace; null where {@link #start} would throw because of what it finds, a missing
     *     library included
     * @throws IllegalArgumentException if the period is negative or too long
     */
    @Blocking
    public static @Nullable CpuLoadTrace startOrNull(int tid, int periodMs) {
        int handle;
        try {
            handle = startedHandle(tid, periodMs);
        } catch (LinkageError noLibrary) {
            return null;
        }
        return handle == 0 ? null : new CpuLoadTrace(handle);
    }

    private static int startedHandle(int tid, int periodMs) {
        if (periodMs < 0 || periodMs > MAX_PERIOD_MS) {
            throw new IllegalArgumentException(
                    "periodMs must be 0 to " + MAX_PERIOD_MS + ", not " + periodMs);
        }
        return TarnBoosterJNI.startTraceCpuLoad(tid, periodMs);
    }

    /**
     * Ends the trace and tells what it measured. Waits for the sampling thread, up to one period. A second
     * call returns the same at once; one that comes while the first still waits, waits with it.
     *
     * @return what was measured
     */
    @Blocking
    public synchronized @NotNull CpuLoad stop() {
        if (load == null) {
            // Never a handle 0 or a second stop, so a -1 is a sum and no failure.
            int khzTicks = TarnBoosterJNI.stopTraceCpuLoad(handle);
            double elapsedSeconds = (System.nanoTime() - startNanos) / 1e9;
            load = new CpuLoad(khzTicks, TarnBoosterJNI.getTickRate(), elapsedSeconds);
        }
        return load;
    }

    /** Ends the trace, as {@link #stop} does. */
    @Override
    @Blocking
    public void close() {
        stop();
    }

    /**
     * The sum that was measured.
     *
     * @return see {@link CpuLoad#khzTicks}
     * @throws IllegalStateException if the trace has not ended yet
     */
    public int khzTicks() {
        return ended().khzTicks();
    }

    /**
     * The same sum with the ticks turned into seconds.
     *
     * @return see {@link CpuLoad#khzSeconds}
     * @throws IllegalStateException if the trace has not ended yet
     */
    public double khzSeconds() {
        return ended().khzSeconds();
    }

    /**
     * The CPU time in which a CPU of a given frequency does the measured work.
     *
     * @param khz see {@link CpuLoad#secondsAt}
     * @return seconds
     * @throws IllegalArgumentException if {@code khz} is 0
     * @throws IllegalStateException if the trace has not ended yet
     */
    public double secondsAt(int khz) {
        return ended().secondsAt(khz);
    }

    /**
     * How long the trace took.
     *
     * @return see {@link CpuLoad#elapsedSeconds}
     * @throws IllegalStateException if the trace has not ended yet
     */
    public double elapsedSeconds() {
        return ended().elapsedSeconds();
    }

    private synchronized CpuLoad ended() {
        if (load == null) {
            throw new IllegalStateException("stop the trace first");
        }
        return load;
    }
}
