package com.tarn.sample;

import com.tarn.performance.Boost;
import com.tarn.performance.BoostRequest;
import com.tarn.performance.CpuLoad;
import com.tarn.performance.CpuLoadTrace;
import com.tarn.performance.TarnBooster;

/** Some work that is worth a boost. Nothing here is Android's, so it runs in a test on a desktop, too. */
public final class Gallery {
    private static final int SAMPLE_MILLIS = 100; // each sample reads two small files

    private final TarnBooster booster;
    private long checksum;

    public Gallery(TarnBooster booster) {
        this.booster = booster;
    }

    /**
     * Opens the gallery with the CPUs and the storage at a high frequency, for two seconds at most.
     *
     * @param thread the calling thread's id
     * @return what it cost, in words
     */
    public String open(int thread) {
        CpuLoadTrace trace = CpuLoadTrace.startOrNull(thread, SAMPLE_MILLIS);
        BoostRequest request =
                BoostRequest.lasting(2000).scene(1).cpuLevel(2).ioLevel(1).threads(thread).build();
        try (Boost boost = booster.boost(request)) {
            decodeThumbnails();
            return boost + ", " + (trace == null ? "not measured" : cost(trace));
        } finally {
            if (trace != null) {
                trace.close();
            }
        }
    }

    private static String cost(CpuLoadTrace trace) {
        CpuLoad load = trace.stop();
        return String.format("%.1f s at 2 GHz", load.secondsAt(2_000_000));
    }

    private void decodeThumbnails() {
        for (int i = 0; i < 20_000_000; i++) {
            checksum = checksum * 31 + i;
        }
    }
}
