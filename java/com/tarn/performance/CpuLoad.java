package com.tarn.performance;

import org.jetbrains.annotations.NotNull;

/** What {@link CpuLoadTrace#stop} has measured; {@link CpuLoadTrace} tells what it means. Immutable. */
public final class CpuLoad {
    private final int khzTicks;
    private final int tickRate;
    private final double elapsedSeconds;

    CpuLoad(int khzTicks, int tickRate, double elapsedSeconds) {
        this.khzTicks = khzTicks;
        this.tickRate = tickRate;
        this.elapsedSeconds = elapsedSeconds;
    }

    /**
     * The sum over all samples of CPU frequency times CPU time, as the library counts it.
     *
     * @return kHz·ticks, wrapped to 32 bits; negative on a machine that does not tell its frequencies
     */
    public int khzTicks() {
        return khzTicks;
    }

    /**
     * The same sum with the ticks turned into seconds.
     *
     * @return kHz·seconds; thousands of clock cycles, that is
     */
    public double khzSeconds() {
        return (double) khzTicks / tickRate;
    }

    /**
     * The CPU time in which a CPU of a given frequency does the measured work.
     *
     * @param khz the frequency, kHz; -1 for a machine that does not tell its frequencies
     * @return seconds
     * @throws IllegalArgumentException if {@code khz} is 0
     */
    public double secondsAt(int khz) {
        if (khz == 0) {
            throw new IllegalArgumentException("khz must not be 0");
        }
        return khzSeconds() / khz;
    }

    /**
     * How long the trace took.
     *
     * @return seconds of real time from its start to its end
     */
    public double elapsedSeconds() {
        return elapsedSeconds;
    }

    @Override
    public @NotNull String toString() {
        return khzTicks + " kHz·ticks in " + elapsedSeconds + " s";
    }
}
