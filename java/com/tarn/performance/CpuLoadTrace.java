package com.tarn.performance;

import java.io.Closeable;

/**
 * Measures how much CPU work one thread of this process does between {@link #start} and {@link #close},
 * weighted by the clock frequency of the CPUs it runs on.
 *
 * <pre>{@code
 * CpuLoadTrace trace = CpuLoadTrace.start(tid, 20);
 * ...
 * trace.close();
 * double cpuSeconds = trace.secondsAt(2000000);  // as if on a CPU of 2 GHz
 * }</pre>
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

    // Both guarded by this.
    private Integer khzTicks;
    private long elapsedNanos;

    private CpuLoadTrace(int handle) {
        this.handle = handle;
        this.startNanos = System.nanoTime();
    }

    /**
     * Starts a trace with a sampling thread of its own.
     *
     * @param tid the kernel's id of a thread of this process
     * @param periodMs sampling period, milliseconds, 0 to {@link #MAX_PERIOD_MS}. 0 samples without pause
     *     and keeps one CPU busy.
     * @return the running trace; the caller closes it
     * @throws IllegalArgumentException if the period is negative or too long
     * @throws IllegalStateException if the library gives no handle: there is no such thread in this
     *     process, the machine shows no CPU directories or 128 of them and more, or the sampling thread
     *     cannot be made
     */
    public static CpuLoadTrace start(int tid, int periodMs) {
        if (periodMs < 0 || periodMs > MAX_PERIOD_MS) {
            throw new IllegalArgumentException(
                    "periodMs must be 0 to " + MAX_PERIOD_MS + ", not " + periodMs);
        }
        int handle = TarnBoosterJNI.startTraceCpuLoad(tid, periodMs);
        if (handle == 0) {
            throw new IllegalStateException("thread " + tid + " cannot be traced");
        }
        return new CpuLoadTrace(handle);
    }

    /**
     * Ends the trace. Waits for the sampling thread, up to one period. A second call changes nothing and
     * returns at once; one that comes while the first still waits, waits with it.
     */
    @Override
    public synchronized void close() {
        if (khzTicks == null) {
            // Never a handle 0 or a second stop, so a -1 is a sum and no failure.
            khzTicks = TarnBoosterJNI.stopTraceCpuLoad(handle);
            elapsedNanos = System.nanoTime() - startNanos;
        }
    }

    /**
     * The sum over all samples of CPU frequency times CPU time, as the library counts it.
     *
     * @return kHz·ticks, wrapped to 32 bits
     * @throws IllegalStateException if the trace is not closed yet
     */
    public synchronized int khzTicks() {
        if (khzTicks == null) {
            throw new IllegalStateException("close the trace first");
        }
        return khzTicks;
    }

    /**
     * The same sum with the ticks turned into seconds.
     *
     * @return kHz·seconds; thousands of clock cycles, that is
     * @throws IllegalStateException if the trace is not closed yet
     */
    public double khzSeconds() {
        return (double) khzTicks() / TarnBoosterJNI.getTickRate();
    }

    /**
     * The CPU time in which a CPU of a given frequency does the measured work.
     *
     * @param khz the frequency, kHz; -1 for a machine that does not tell its frequencies
     * @return seconds
     * @throws IllegalArgumentException if {@code khz} is 0
     * @throws IllegalStateException if the trace is not closed yet
     */
    public double secondsAt(int khz) {
        if (khz == 0) {
            throw new IllegalArgumentException("khz must not be 0");
        }
        return khzSeconds() / khz;
    }

    /**
     * How long the trace took, by the clock on the wall.
     *
     * @return seconds from {@link #start} to the end of {@link #close}
     * @throws IllegalStateException if the trace is not closed yet
     */
    public synchronized double elapsedSeconds() {
        khzTicks();
        return elapsedNanos / 1e9;
    }
}
