package com.tarn.performance;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.nio.file.Files;
import java.nio.file.Path;
import org.junit.Assume;
import org.junit.Before;
import org.junit.Test;

/** Traces of this process's own threads. */
public class CpuLoadTraceTest {
    private int tid;

    @Before
    public void findTheThread() throws IOException {
        Assume.assumeTrue(
                "the machine shows its CPUs", Files.isDirectory(Path.of("/sys/devices/system/cpu/cpu0")));
        tid = Integer.parseInt(Files.readSymbolicLink(Path.of("/proc/thread-self")).getFileName().toString());
    }

    /** Keeps the calling thread busy for CPU seconds of its own. */
    private static void burn(double seconds) {
        long end = ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime() + (long) (seconds * 1e9);
        Await.until("CPU time was used", () -> {
            long part = System.nanoTime() + 20_000_000;
            while (System.nanoTime() < part) {
                Thread.onSpinWait();
            }
            return ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime() >= end;
        });
    }

    @Test
    public void aBusyThreadIsChargedItsCpuTime() {
        boolean frequencies =
                Files.isReadable(Path.of("/sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq"));
        CpuLoadTrace trace = CpuLoadTrace.start(tid, 1);
        burn(0.5);
        assertThrows(IllegalStateException.class, trace::khzTicks);
        trace.close();
        if (frequencies) {
            assertTrue("" + trace.khzTicks(), trace.khzTicks() != 0);
            return;
        }
        // Without frequencies the sum is the ticks, negative; the last tick or two may come after the last
        // sample.
        double seconds = trace.secondsAt(-1);
        assertEquals(-seconds * TarnBoosterJNI.getTickRate(), trace.khzTicks(), 0.001);
        assertTrue("" + seconds, seconds >= 0.25);
        assertTrue(seconds + " of " + trace.elapsedSeconds(), seconds <= trace.elapsedSeconds() + 0.1);
    }

    @Test
    public void closingTwiceChangesNothing() {
        CpuLoadTrace trace = CpuLoadTrace.start(tid, 1);
        trace.close();
        int sum = trace.khzTicks();
        double elapsed = trace.elapsedSeconds();
        trace.close();
        assertEquals(sum, trace.khzTicks());
        assertEquals(elapsed, trace.elapsedSeconds(), 0);
        assertThrows(IllegalArgumentException.class, () -> trace.secondsAt(0));
    }

    @Test
    public void badPeriodsAndThreadsOfOthersAreRefused() {
        for (int period : new int[] {-1, Integer.MIN_VALUE, CpuLoadTrace.MAX_PERIOD_MS + 1}) {
            assertThrows(IllegalArgumentException.class, () -> CpuLoadTrace.start(tid, period));
        }
        for (int other : new int[] {0, 1, Integer.MAX_VALUE}) {
            assertThrows(IllegalStateException.class, () -> CpuLoadTrace.start(other, 1));
        }
        assertEquals(-1, TarnBoosterJNI.stopTraceCpuLoad(12345));
    }
}
