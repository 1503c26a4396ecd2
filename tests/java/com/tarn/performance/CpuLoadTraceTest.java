package com.tarn.performance;

import static org.junit.Assert.*;

import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.file.Files;
import java.nio.file.Path;
import org.junit.Assume;
import org.junit.Before;
import org.junit.Test;

/** Traces of this process's own threads. */
public class CpuLoadTraceTest {
    private static final Path CPU = Path.of("/sys/devices/system/cpu/cpu0");
    private final int tid = TarnBooster.currentThreadId();

    @Before
    public void lookForTheCpus() {
        Assume.assumeTrue("the machine shows its CPUs", Files.isDirectory(CPU));
    }

    @Test
    public void aBusyThreadIsChargedItsCpuTimeAndClosingTwiceChangesNothing() {
        ThreadMXBean clock = ManagementFactory.getThreadMXBean();
        CpuLoadTrace.start(tid, 1); // stays open: the process may end while samplers run
        CpuLoadTrace trace = CpuLoadTrace.start(tid, 1);
        long end = clock.getCurrentThreadCpuTime() + 500_000_000;
        while (clock.getCurrentThreadCpuTime() < end) {
            Thread.onSpinWait();
        }
        assertThrows(IllegalStateException.class, trace::khzTicks);
        trace.close();
        int sum = trace.khzTicks();
        double elapsed = trace.elapsedSeconds();
        trace.close();
        assertEquals(sum, trace.khzTicks());
        assertEquals(elapsed, trace.elapsedSeconds(), 0);
        assertThrows(IllegalArgumentException.class, () -> trace.secondsAt(0));
        if (Files.isReadable(CPU.resolve("cpufreq/scaling_cur_freq"))) {
            assertTrue("" + sum, sum != 0);
            return;
        }
        // Without frequencies the sum is the ticks, negative; the last may come after the last sample.
        double seconds = trace.secondsAt(-1);
        assertEquals(-seconds * TarnBoosterJNI.getTickRate(), sum, 0.001);
        assertTrue(seconds + " of " + elapsed, seconds >= 0.25 && seconds <= elapsed + 0.1);
    }

    @Test
    public void badPeriodsAndThreadsOfOthersAreRefused() {
        for (int period : new int[] {-1, Integer.MIN_VALUE, CpuLoadTrace.MAX_PERIOD_MS + 1}) {
            assertThrows(IllegalArgumentException.class, () -> CpuLoadTrace.start(tid, period));
        }
        for (int other : new int[] {0, 1, Integer.MAX_VALUE}) {
            assertThrows(IllegalStateException.class, () -> CpuLoadTrace.start(other, 1));
        }
        assertEquals(-1, TarnBoosterJNI.stopTraceCpuLoad(12345)); // handles are even
    }
}
